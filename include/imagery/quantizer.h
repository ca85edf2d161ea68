// The palette quantiser: reduces 24-bit pixels to at most 256 colours in two passes. The first pass
// counts every pixel into a coarse colour histogram (5, 6 and 5 significant bits of channels 0, 1 and 2);
// a median cut then splits the histogram into boxes, one palette entry per box; the second pass maps every
// pixel to a palette index, plainly or with Floyd-Steinberg error diffusion.
//
// The quantiser is one process-wide object: its settings (image width, desired colour count, dithering)
// and buffers are shared by every user, and one mutex serialises all users. QuantizationHelper is the
// only way in: it holds the mutex for its whole lifetime and, when destroyed, puts back the five
// settings it found, so a user never disturbs the next one. The mutex is not recursive: a thread that
// makes a second helper while holding one blocks for ever.
//
// Pixels handed to the quantiser are 3 bytes each, channel 0 first. The distance between colours weighs
// channel 0 twice, channel 1 three times and channel 2 once, which suits blue-green-red (CLR) and
// red-green-blue input alike for previews.
//
// One image, in order:
//   QuantizationHelper q;                      // blocks until the quantiser is free
//   q.SetDesiredNumberOfColors(256);           // 8..256
//   q.init(width, height, dither, 256);
//   q.start_pass_2_quant(true);
//   for each row: q.post_process_data(row, nullptr);
//   q.finish_pass();                           // palette chosen: GetColorMap(), GetActualNumberOfColors()
//   q.start_pass_2_quant(false);
//   for each row: q.post_process_data(row, indices);   // width palette indices per row
//   q.finish_pass();                           // buffers released
#pragma once

#include <memory>

#include "imagery/export.h"

namespace imagery {

class IMAGERY_API QuantizationHelper {
 public:
  static constexpr int kMinColors = 8;
  static constexpr int kMaxColors = 256;
  // Bytes of the colour map: 256 entries of channel 0, then of channel 1, of channel 2, and 256 zero bytes.
  static constexpr int kColorMapBytes = 4 * 256;

  // Locks the quantiser (blocking) and saves its settings.
  QuantizationHelper();
  // Puts back the saved settings, releases any buffer a pass left behind, and unlocks.
  ~QuantizationHelper();
  QuantizationHelper(const QuantizationHelper&) = delete;
  QuantizationHelper& operator=(const QuantizationHelper&) = delete;

  // The palette size init will aim for. Not checked here: outside 8..256, init prepares nothing (see
  // IsPrepared), so callers should check first.
  void SetDesiredNumberOfColors(unsigned int n);

  // Sets the image width (pixels per row of every pass) and height, each at least 1, the dithering and
  // the colour count recorded as obtained, then allocates the histogram (and the error buffers when
  // dithering). Buffers a previous user left behind are released first.
  void init(int width, int height, bool dither, unsigned int colors);
  // Whether init allocated the buffers (false when the desired colour count is outside 8..256, and after
  // the second pass ended).
  bool IsPrepared() const;

  // Chooses the next pass: counting (isPrescan) or mapping; empties the histogram either way.
  void start_pass_2_quant(bool isPrescan);
  // One row of init's width: `in` holds width x 3 bytes. The counting pass only reads it; the mapping
  // pass writes width indices to `out`. Does nothing when the quantiser is not prepared.
  void post_process_data(const unsigned char* in, unsigned char* out);
  // Ends the pass: after counting, chooses the palette; after mapping, releases the buffers.
  void finish_pass();

  // The colour map (kColorMapBytes bytes, channel-major). It stays until the next palette is chosen.
  const unsigned char* GetColorMap() const;
  // The 256 entries of channel c; c of 4 or more gives channel 0.
  const unsigned char* GetColorMapChannel(unsigned int c) const;

  // The current process-wide settings.
  int GetActualNumberOfColors() const;
  int GetDesiredNumberOfColors() const;
  int GetImageWidth() const;
  int GetImageHeight() const;
  bool GetDitherColors() const;

 private:
  struct Record;
  std::unique_ptr<Record> record_;
};

}  // namespace imagery
