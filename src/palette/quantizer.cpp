// The process-wide two-pass median-cut quantiser: its state, the histogram pass, the palette selection,
// the inverse colour map and the plain and error-diffusing mapping passes, and QuantizationHelper.
//
// Everything here except QuantizationHelper has hidden visibility: the helpers keep their traditional
// names, which must never reach the dynamic symbol table beside the JPEG library's.
#include "imagery/quantizer.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

namespace imagery {
namespace quant_details {

// Histogram geometry: 5, 6 and 5 significant bits of channels 0, 1 and 2.
constexpr int kShift0 = 3, kShift1 = 2, kShift2 = 3;
constexpr int kCells0 = 32, kCells1 = 64, kCells2 = 32;
// The distance weighs channel 0 twice, channel 1 three times, channel 2 once; a cell step spans 8, 4 and
// 8 sample values, so it weighs 16, 12 and 8.
constexpr int kScale0 = 2, kScale1 = 3, kScale2 = 1;
constexpr int kCellWeight0 = kScale0 << kShift0, kCellWeight1 = kScale1 << kShift1,
              kCellWeight2 = kScale2 << kShift2;
// The inverse colour map is filled one block of 4 x 8 x 4 cells at a time.
constexpr int kBlockShift0 = 2, kBlockShift1 = 3, kBlockShift2 = 2;
constexpr int kBlock0 = 1 << kBlockShift0, kBlock1 = 1 << kBlockShift1, kBlock2 = 1 << kBlockShift2;
constexpr int kMaxErrorIndex = 255;

using HistCell = std::uint16_t;
using HistPlane = HistCell[kCells1 * kCells2];  // 4096 bytes: one value of channel 0
using FsError = std::int16_t;

struct box {
  int c0min, c0max;
  int c1min, c1max;
  int c2min, c2max;
  int volume;
  long long colorcount;
};

using RowHook = void (*)(const unsigned char* in, unsigned char* out, int width);
using PassHook = void (*)();

// --- The process-wide state, guarded by gMutex_ ------------------------------------------------------
std::mutex gMutex_;
int image_width = 1;
int image_height = 1;
int desired_number_of_colors = 256;
int actual_number_of_colors = 256;
bool bDitherColors = false;
HistPlane* histogram[kCells0] = {};
unsigned char colormap[4][256] = {};
FsError* fserrors = nullptr;
int* error_limiter = nullptr;  // points at entry 0 of 511 values indexed -255..255
bool on_odd_row = false;
RowHook color_quantize = nullptr;
PassHook finish_pass = nullptr;
RowHook post_process_data = nullptr;

// The storage behind the raw pointers above.
std::unique_ptr<HistPlane[]> histogramStorage;
std::unique_ptr<FsError[]> fserrorsStorage;
std::unique_ptr<int[]> errorLimiterStorage;

inline HistCell& Cell(int c0, int c1, int c2) {
  return (*histogram[c0])[c1 * kCells2 + c2];
}

void release_buffers() {
  std::fill(std::begin(histogram), std::end(histogram), nullptr);
  histogramStorage.reset();
  fserrors = nullptr;
  fserrorsStorage.reset();
  error_limiter = nullptr;
  errorLimiterStorage.reset();
}

void init_error_limit() {
  errorLimiterStorage.reset(new int[2 * kMaxErrorIndex + 1]);
  error_limiter = errorLimiterStorage.get() + kMaxErrorIndex;
  // Small errors pass unchanged, middling ones are halved beyond 16, large ones stop at 32: full
  // diffusion of big errors would smear edges across flat areas.
  for (int e = 0; e <= kMaxErrorIndex; ++e) {
    int out;
    if (e < 16)
      out = e;
    else if (e < 48)
      out = 16 + (e - 16) / 2;
    else
      out = 32;
    error_limiter[e] = out;
    error_limiter[-e] = -out;
  }
}

void jinit_2pass_quantizer() {
  release_buffers();
  if (desired_number_of_colors < QuantizationHelper::kMinColors ||
      desired_number_of_colors > QuantizationHelper::kMaxColors)
    return;
  histogramStorage.reset(new HistPlane[kCells0]);
  for (int c0 = 0; c0 < kCells0; ++c0)
    histogram[c0] = &histogramStorage[c0];
  if (bDitherColors) {
    const std::size_t count = (static_cast<std::size_t>(image_width) + 2) * 3;
    fserrorsStorage.reset(new FsError[count]());
    fserrors = fserrorsStorage.get();
    on_odd_row = false;
    init_error_limit();
  }
}

// --- First pass ----------------------------------------------------------------------------------------

void prescan_quantize(const unsigned char* in, unsigned char*, int width) {
  for (int x = 0; x < width; ++x, in += 3) {
    HistCell& cell = Cell(in[0] >> kShift0, in[1] >> kShift1, in[2] >> kShift2);
    if (cell != 0xFFFF)
      ++cell;
  }
}

// --- Palette selection -----------------------------------------------------------------------------------

box* find_biggest_color_pop(box* boxes, int numboxes) {
  box* which = nullptr;
  long long most = 0;
  for (int i = 0; i < numboxes; ++i)
    if (boxes[i].colorcount > most && boxes[i].volume > 0) {
      which = &boxes[i];
      most = boxes[i].colorcount;
    }
  return which;
}

box* find_biggest_volume(box* boxes, int numboxes) {
  box* which = nullptr;
  int most = 0;
  for (int i = 0; i < numboxes; ++i)
    if (boxes[i].volume > most) {
      which = &boxes[i];
      most = boxes[i].volume;
    }
  return which;
}

bool PlaneC0Used(const box& b, int c0) {
  for (int c1 = b.c1min; c1 <= b.c1max; ++c1)
    for (int c2 = b.c2min; c2 <= b.c2max; ++c2)
      if (Cell(c0, c1, c2) != 0)
        return true;
  return false;
}
bool PlaneC1Used(const box& b, int c1) {
  for (int c0 = b.c0min; c0 <= b.c0max; ++c0)
    for (int c2 = b.c2min; c2 <= b.c2max; ++c2)
      if (Cell(c0, c1, c2) != 0)
        return true;
  return false;
}
bool PlaneC2Used(const box& b, int c2) {
  for (int c0 = b.c0min; c0 <= b.c0max; ++c0)
    for (int c1 = b.c1min; c1 <= b.c1max; ++c1)
      if (Cell(c0, c1, c2) != 0)
        return true;
  return false;
}

// Moves each bound inward past empty planes of cells; a box without any counted cell keeps its bounds.
template <class Used>
void Shrink(const box& b, int& lo, int& hi, Used used) {
  for (int v = lo; v <= hi; ++v)
    if (used(b, v)) {
      lo = v;
      break;
    }
  for (int v = hi; v >= lo; --v)
    if (used(b, v)) {
      hi = v;
      break;
    }
}

void update_box(box* b) {
  if (b->c0max > b->c0min)
    Shrink(*b, b->c0min, b->c0max, PlaneC0Used);
  if (b->c1max > b->c1min)
    Shrink(*b, b->c1min, b->c1max, PlaneC1Used);
  if (b->c2max > b->c2min)
    Shrink(*b, b->c2min, b->c2max, PlaneC2Used);

  const int d0 = (b->c0max - b->c0min) * kCellWeight0;
  const int d1 = (b->c1max - b->c1min) * kCellWeight1;
  const int d2 = (b->c2max - b->c2min) * kCellWeight2;
  b->volume = d0 * d0 + d1 * d1 + d2 * d2;

  long long count = 0;
  for (int c0 = b->c0min; c0 <= b->c0max; ++c0)
    for (int c1 = b->c1min; c1 <= b->c1max; ++c1)
      for (int c2 = b->c2min; c2 <= b->c2max; ++c2)
        if (Cell(c0, c1, c2) != 0)
          ++count;
  b->colorcount = count;
}

int median_cut(box* boxes, int numboxes, int desired) {
  while (numboxes < desired) {
    // Early on split the most populated boxes; once half the palette exists, the largest ones, so that
    // rare but distant colours still get an entry.
    box* b1 = numboxes * 2 <= desired ? find_biggest_color_pop(boxes, numboxes)
                                      : find_biggest_volume(boxes, numboxes);
    if (b1 == nullptr)
      break;
    box* b2 = &boxes[numboxes];
    *b2 = *b1;
    const int len0 = (b1->c0max - b1->c0min) * kCellWeight0;
    const int len1 = (b1->c1max - b1->c1min) * kCellWeight1;
    const int len2 = (b1->c2max - b1->c2min) * kCellWeight2;
    int axis = 1;
    int longest = len1;
    if (len0 > longest) {
      axis = 0;
      longest = len0;
    }
    if (len2 > longest)
      axis = 2;
    switch (axis) {
      case 0: {
        const int split = (b1->c0max + b1->c0min) / 2;
        b1->c0max = split;
        b2->c0min = split + 1;
        break;
      }
      case 1: {
        const int split = (b1->c1max + b1->c1min) / 2;
        b1->c1max = split;
        b2->c1min = split + 1;
        break;
      }
      default: {
        const int split = (b1->c2max + b1->c2min) / 2;
        b1->c2max = split;
        b2->c2min = split + 1;
        break;
      }
    }
    update_box(b1);
    update_box(b2);
    ++numboxes;
  }
  return numboxes;
}

void compute_color(box* b, int index) {
  long long total = 0, sum0 = 0, sum1 = 0, sum2 = 0;
  for (int c0 = b->c0min; c0 <= b->c0max; ++c0)
    for (int c1 = b->c1min; c1 <= b->c1max; ++c1)
      for (int c2 = b->c2min; c2 <= b->c2max; ++c2) {
        const long long count = Cell(c0, c1, c2);
        if (count == 0)
          continue;
        total += count;
        sum0 += ((c0 << kShift0) + ((1 << kShift0) >> 1)) * count;
        sum1 += ((c1 << kShift1) + ((1 << kShift1) >> 1)) * count;
        sum2 += ((c2 << kShift2) + ((1 << kShift2) >> 1)) * count;
      }
  // A first pass that counted nothing has no average; black is as good as any colour then.
  if (total == 0) {
    colormap[0][index] = colormap[1][index] = colormap[2][index] = 0;
    return;
  }
  colormap[0][index] = static_cast<unsigned char>((sum0 + total / 2) / total);
  colormap[1][index] = static_cast<unsigned char>((sum1 + total / 2) / total);
  colormap[2][index] = static_cast<unsigned char>((sum2 + total / 2) / total);
}

void select_colors() {
  const int desired = desired_number_of_colors;
  std::vector<box> boxes(static_cast<std::size_t>(desired));
  boxes[0] = box{0, kCells0 - 1, 0, kCells1 - 1, 0, kCells2 - 1, 0, 0};
  update_box(&boxes[0]);
  const int numboxes = median_cut(boxes.data(), 1, desired);
  for (int i = 0; i < numboxes; ++i)
    compute_color(&boxes[i], i);
  actual_number_of_colors = numboxes;
}

void finish_pass1() {
  if (histogram[0] == nullptr)
    return;
  select_colors();
}

// --- Inverse colour map ----------------------------------------------------------------------------------

// The palette entries that can be nearest to some cell centre of the block whose first cell centre is
// (min0, min1, min2): those whose nearest possible distance to the block does not exceed the smallest
// farthest possible distance of any entry.
int find_nearby_colors(int min0, int min1, int min2, unsigned char* candidates) {
  const int max0 = min0 + ((kBlock0 - 1) << kShift0);
  const int max1 = min1 + ((kBlock1 - 1) << kShift1);
  const int max2 = min2 + ((kBlock2 - 1) << kShift2);
  const int centre0 = (min0 + max0) >> 1, centre1 = (min1 + max1) >> 1, centre2 = (min2 + max2) >> 1;
  const int count = actual_number_of_colors;
  int nearest[256];
  int smallestFarthest = 0x7FFFFFFF;

  // Per channel: the nearest and farthest weighted offset from the entry to the block's span.
  auto extent = [](int value, int lo, int hi, int centre, int scale, int& near, int& far) {
    if (value < lo) {
      near = (value - lo) * scale;
      far = (value - hi) * scale;
    } else if (value > hi) {
      near = (value - hi) * scale;
      far = (value - lo) * scale;
    } else {
      near = 0;
      far = (value <= centre ? value - hi : value - lo) * scale;
    }
  };
  for (int i = 0; i < count; ++i) {
    int n0, f0, n1, f1, n2, f2;
    extent(colormap[0][i], min0, max0, centre0, kScale0, n0, f0);
    extent(colormap[1][i], min1, max1, centre1, kScale1, n1, f1);
    extent(colormap[2][i], min2, max2, centre2, kScale2, n2, f2);
    nearest[i] = n0 * n0 + n1 * n1 + n2 * n2;
    smallestFarthest = std::min(smallestFarthest, f0 * f0 + f1 * f1 + f2 * f2);
  }
  int kept = 0;
  for (int i = 0; i < count; ++i)
    if (nearest[i] <= smallestFarthest)
      candidates[kept++] = static_cast<unsigned char>(i);
  return kept;
}

// For each cell of the block, the candidate nearest to the cell centre; ties go to the lower index,
// which the ascending candidate list and the strict comparison give.
void find_best_colors(int min0, int min1, int min2, int numcolors, const unsigned char* candidates,
                      unsigned char* best) {
  int bestDistance[kBlock0 * kBlock1 * kBlock2];
  std::fill(std::begin(bestDistance), std::end(bestDistance), 0x7FFFFFFF);
  for (int n = 0; n < numcolors; ++n) {
    const int index = candidates[n];
    const int v0 = colormap[0][index], v1 = colormap[1][index], v2 = colormap[2][index];
    int* distance = bestDistance;
    unsigned char* out = best;
    for (int i0 = 0; i0 < kBlock0; ++i0) {
      const int d0 = (min0 + (i0 << kShift0) - v0) * kScale0;
      const int dist0 = d0 * d0;
      for (int i1 = 0; i1 < kBlock1; ++i1) {
        const int d1 = (min1 + (i1 << kShift1) - v1) * kScale1;
        const int dist01 = dist0 + d1 * d1;
        for (int i2 = 0; i2 < kBlock2; ++i2, ++distance, ++out) {
          const int d2 = (min2 + (i2 << kShift2) - v2) * kScale2;
          const int dist = dist01 + d2 * d2;
          if (dist < *distance) {
            *distance = dist;
            *out = static_cast<unsigned char>(index);
          }
        }
      }
    }
  }
}

void fill_inverse_cmap(int c0, int c1, int c2) {
  // The block of cells containing the one asked for.
  c0 = (c0 >> kBlockShift0) << kBlockShift0;
  c1 = (c1 >> kBlockShift1) << kBlockShift1;
  c2 = (c2 >> kBlockShift2) << kBlockShift2;
  // Its first cell centre in sample values.
  const int min0 = (c0 << kShift0) + ((1 << kShift0) >> 1);
  const int min1 = (c1 << kShift1) + ((1 << kShift1) >> 1);
  const int min2 = (c2 << kShift2) + ((1 << kShift2) >> 1);

  unsigned char candidates[256];
  const int numcolors = find_nearby_colors(min0, min1, min2, candidates);
  unsigned char best[kBlock0 * kBlock1 * kBlock2] = {};
  find_best_colors(min0, min1, min2, numcolors, candidates, best);

  const unsigned char* value = best;
  for (int i0 = 0; i0 < kBlock0; ++i0)
    for (int i1 = 0; i1 < kBlock1; ++i1)
      for (int i2 = 0; i2 < kBlock2; ++i2)
        Cell(c0 + i0, c1 + i1, c2 + i2) = static_cast<HistCell>(*value++ + 1);
}

inline int LookUp(int v0, int v1, int v2) {
  const int c0 = v0 >> kShift0, c1 = v1 >> kShift1, c2 = v2 >> kShift2;
  HistCell& cell = Cell(c0, c1, c2);
  if (cell == 0)
    fill_inverse_cmap(c0, c1, c2);
  return cell - 1;
}

// --- Second pass -------------------------------------------------------------------------------------------

void pass2_no_dither(const unsigned char* in, unsigned char* out, int width) {
  for (int x = 0; x < width; ++x, in += 3)
    out[x] = static_cast<unsigned char>(LookUp(in[0], in[1], in[2]));
}

void pass2_fs_dither(const unsigned char* in, unsigned char* out, int width) {
  // The error buffers exist only when init asked for dithering.
  if (fserrors == nullptr || error_limiter == nullptr) {
    pass2_no_dither(in, out, width);
    return;
  }
  // Errors are in 1/16 units; fserrors holds one triple per column plus a guard column at each end, so
  // column x lives at entry x + 1.
  int step;
  FsError* errors;
  if (on_odd_row) {
    in += (width - 1) * 3;
    out += width - 1;
    step = -1;
    errors = fserrors + (width + 1) * 3;
  } else {
    step = 1;
    errors = fserrors;
  }
  on_odd_row = !on_odd_row;
  const int step3 = step * 3;

  // Per channel: the error carried to the next pixel of the row (7/16), the sum owed to the column
  // below the previous pixel (its 5/16 and the 1/16 of the one before), and the current pixel's 1/16.
  int carried[3] = {0, 0, 0};
  int belowPrevious[3] = {0, 0, 0};
  int belowCurrent[3] = {0, 0, 0};
  for (int x = 0; x < width; ++x) {
    int value[3];
    for (int c = 0; c < 3; ++c) {
      int e = (carried[c] + errors[step3 + c] + 8) >> 4;
      e = std::min(std::max(e, -kMaxErrorIndex), kMaxErrorIndex);
      const int v = in[c] + error_limiter[e];
      value[c] = std::min(std::max(v, 0), 255);
    }
    const int index = LookUp(value[0], value[1], value[2]);
    *out = static_cast<unsigned char>(index);
    for (int c = 0; c < 3; ++c) {
      const int err = value[c] - colormap[c][index];
      errors[c] = static_cast<FsError>(belowPrevious[c] + 3 * err);
      belowPrevious[c] = belowCurrent[c] + 5 * err;
      belowCurrent[c] = err;
      carried[c] = 7 * err;
    }
    in += step3;
    out += step;
    errors += step3;
  }
  for (int c = 0; c < 3; ++c)
    errors[c] = static_cast<FsError>(belowPrevious[c]);
}

void finish_pass2() {
  release_buffers();
}

void start_pass_2_quant(bool isPrescan) {
  if (isPrescan) {
    color_quantize = prescan_quantize;
    finish_pass = finish_pass1;
  } else {
    color_quantize = bDitherColors ? pass2_fs_dither : pass2_no_dither;
    finish_pass = finish_pass2;
  }
  // For the mapping pass this empties the inverse-map cache the histogram turns into.
  if (histogram[0] != nullptr)
    std::memset(histogramStorage.get(), 0, sizeof(HistPlane) * kCells0);
}

// --- Row entries
// ---------------------------------------------------------------------------------------------

void post_process_prepass(const unsigned char*, unsigned char*, int) {}

void post_process_2pass(const unsigned char* in, unsigned char* out, int width) {
  if (color_quantize != nullptr)
    color_quantize(in, out, width);
}

void post_process_1pass(const unsigned char* in, unsigned char* out, int width) {
  pass2_fs_dither(in, out, width);
}

// Buffer modes of the row controller: 0 one pass, 2 the second of two passes, 3 the counting pre-pass.
void start_pass_dpost(int mode) {
  switch (mode) {
    case 0:
      post_process_data = post_process_1pass;
      break;
    case 2:
      post_process_data = post_process_2pass;
      break;
    case 3:
      post_process_data = post_process_prepass;
      break;
    default:
      break;
  }
}

void jinit_d_post_controller() {
  post_process_data = post_process_2pass;
}

}  // namespace quant_details

namespace qd = quant_details;

struct QuantizationHelper::Record {
  int initialised = 0;
  std::unique_lock<std::mutex> lock;
  bool dither;
  int width;
  int height;
  int actual;
  int desired;

  Record()
      : lock(qd::gMutex_),
        dither(qd::bDitherColors),
        width(qd::image_width),
        height(qd::image_height),
        actual(qd::actual_number_of_colors),
        desired(qd::desired_number_of_colors) {}
};

QuantizationHelper::QuantizationHelper() : record_(new Record) {}

QuantizationHelper::~QuantizationHelper() {
  qd::bDitherColors = record_->dither;
  qd::image_width = record_->width;
  qd::image_height = record_->height;
  qd::actual_number_of_colors = record_->actual;
  qd::desired_number_of_colors = record_->desired;
  // A user that stopped before the end of its second pass leaves buffers no one else may reuse.
  qd::release_buffers();
  if (record_->lock.owns_lock())
    record_->lock.unlock();
}

void QuantizationHelper::SetDesiredNumberOfColors(unsigned int n) {
  qd::desired_number_of_colors = static_cast<int>(std::min<unsigned int>(n, 0x7FFFFFFF));
}

void QuantizationHelper::init(int width, int height, bool dither, unsigned int colors) {
  record_->initialised = 1;
  qd::image_width = std::max(width, 1);
  qd::image_height = std::max(height, 1);
  qd::bDitherColors = dither;
  qd::actual_number_of_colors = static_cast<int>(std::min<unsigned int>(colors, 256));
  qd::jinit_d_post_controller();
  qd::jinit_2pass_quantizer();
}

bool QuantizationHelper::IsPrepared() const {
  return qd::histogram[0] != nullptr;
}

void QuantizationHelper::start_pass_2_quant(bool isPrescan) {
  qd::start_pass_2_quant(isPrescan);
}

void QuantizationHelper::post_process_data(const unsigned char* in, unsigned char* out) {
  if (!IsPrepared() || qd::post_process_data == nullptr)
    return;
  qd::post_process_data(in, out, qd::image_width);
}

void QuantizationHelper::finish_pass() {
  if (qd::finish_pass != nullptr)
    qd::finish_pass();
}

const unsigned char* QuantizationHelper::GetColorMap() const {
  return &qd::colormap[0][0];
}

const unsigned char* QuantizationHelper::GetColorMapChannel(unsigned int c) const {
  return qd::colormap[c < 4 ? c : 0];
}

int QuantizationHelper::GetActualNumberOfColors() const {
  return qd::actual_number_of_colors;
}
int QuantizationHelper::GetDesiredNumberOfColors() const {
  return qd::desired_number_of_colors;
}
int QuantizationHelper::GetImageWidth() const {
  return qd::image_width;
}
int QuantizationHelper::GetImageHeight() const {
  return qd::image_height;
}
bool QuantizationHelper::GetDitherColors() const {
  return qd::bDitherColors;
}

}  // namespace imagery
