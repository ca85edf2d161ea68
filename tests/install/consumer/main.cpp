#include <iostream>

#include "imagery/imagery.h"

int main() {
  std::cout << "consumer ok\n";
  return 0;
}
