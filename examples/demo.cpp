#include <iostream>

#include "imagery/imagery.h"

int main() {
  std::cout << "imagery demo\n";
  return 0;
}
