// Operations that move a handle through several implementations (one per pass, say) must not leave it
// on a half-made one when a later step throws or gives up: the guard remembers the handle as it was and
// puts it back unless the operation commits. Implementations the handle passed through die with their
// last reference, which also takes them off the image list.
#pragma once

#include "imagery/image.h"

namespace imagery {

class HandleRollback {
 public:
  explicit HandleRollback(Image& image) : image_(image), saved_(image) {}
  ~HandleRollback() {
    if (!committed_)
      image_.Swap(saved_);
  }
  HandleRollback(const HandleRollback&) = delete;
  HandleRollback& operator=(const HandleRollback&) = delete;

  void Commit() { committed_ = true; }

 private:
  Image& image_;
  Image saved_;
  bool committed_ = false;
};

}  // namespace imagery
