// MD5 over Debian's libmd: the classic incremental interface and the MD5digest value.
#include "imagery_host/md5.h"

#include <md5.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "hex.h"
#include "imagery_host/stream.h"

static_assert(sizeof(MD5_CTX) <= sizeof(md5_state_t::opaque), "md5_state_t is too small for MD5_CTX");
static_assert(alignof(MD5_CTX) <= alignof(md5_state_t), "md5_state_t is not aligned enough for MD5_CTX");
static_assert(MD5_DIGEST_LENGTH == MD5digest::kSize, "an MD5 digest has 16 bytes");

namespace {

MD5_CTX* Context(md5_state_t* state) {
  return std::launder(reinterpret_cast<MD5_CTX*>(state->opaque));
}

}  // namespace

void md5_init(md5_state_t* state) {
  MD5Init(new (state->opaque) MD5_CTX);
}

void md5_append(md5_state_t* state, const unsigned char* data, std::size_t nbytes) {
  if (nbytes == 0)
    return;
  MD5Update(Context(state), data, nbytes);
}

void md5_finish(md5_state_t* state, unsigned char digest[16]) {
  MD5Final(digest, Context(state));
}

void MD5digest::Reset(const unsigned char* sixteenBytes) {
  if (sixteenBytes == nullptr) {
    std::fill(bytes_, bytes_ + kSize, 0);
  } else {
    std::memcpy(bytes_, sixteenBytes, kSize);
  }
}

bool MD5digest::IsNull() const {
  return std::all_of(bytes_, bytes_ + kSize, [](unsigned char b) { return b == 0; });
}

std::string MD5digest::ToHex(bool lowerCase) const {
  return zel::detail::BytesToHex(bytes_, kSize, lowerCase);
}

bool MD5digest::Write(ZELStream* stream) const {
  return stream != nullptr && stream->Write(bytes_, kSize);
}

bool MD5digest::Read(ZELStream* stream) {
  unsigned char read[kSize];
  if (stream == nullptr || !stream->Read(read, kSize))
    return false;
  Reset(read);
  return true;
}

bool operator==(const MD5digest& a, const MD5digest& b) {
  return std::memcmp(a.bytes_, b.bytes_, MD5digest::kSize) == 0;
}

bool operator<(const MD5digest& a, const MD5digest& b) {
  return std::memcmp(a.bytes_, b.bytes_, MD5digest::kSize) < 0;
}

MD5digest ComputeMD5(const void* data, std::size_t size) {
  md5_state_t state;
  md5_init(&state);
  md5_append(&state, static_cast<const unsigned char*>(data), size);
  unsigned char digest[MD5digest::kSize];
  md5_finish(&state, digest);
  return MD5digest(digest);
}

std::size_t std::hash<MD5digest>::operator()(const MD5digest& digest) const noexcept {
  // The bytes of a digest are already uniformly spread; the first few make a good hash.
  std::size_t value = 0;
  std::memcpy(&value, digest.GetBytes(), sizeof(value));
  return value;
}
