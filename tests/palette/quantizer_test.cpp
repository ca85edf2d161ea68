// The palette quantiser: against the JPEG library's two-pass quantiser as a black box (which also checks
// that plain mapping picks the nearest entry, ties to the lower index), its process-wide settings,
// its use from several threads, and pictures with fewer occupied cells than colours.
#include <gtest/gtest.h>

// jpeglib.h uses FILE without declaring it.
#include <cstdio>

#include <jpeglib.h>

#include <algorithm>
#include <set>
#include <thread>
#include <tuple>

#include "imagery/quantizer.h"
#include "palette/palette_support.h"

namespace imagery {
namespace {

using namespace palette_testing;

// --- The JPEG library, through its public interface only -------------------------------------------------

Bytes CompressJpeg(const Bytes& rgb, int width, int height) {
  jpeg_compress_struct cinfo;
  jpeg_error_mgr error;
  cinfo.err = jpeg_std_error(&error);
  jpeg_create_compress(&cinfo);
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&cinfo, &buffer, &size);
  cinfo.image_width = static_cast<JDIMENSION>(width);
  cinfo.image_height = static_cast<JDIMENSION>(height);
  cinfo.input_components = 3;
  cinfo.in_color_space = JCS_RGB;
  jpeg_set_defaults(&cinfo);
  jpeg_set_quality(&cinfo, 92, TRUE);
  jpeg_start_compress(&cinfo, TRUE);
  while (cinfo.next_scanline < cinfo.image_height) {
    JSAMPROW row = const_cast<JSAMPROW>(&rgb[static_cast<std::size_t>(cinfo.next_scanline) * width * 3]);
    jpeg_write_scanlines(&cinfo, &row, 1);
  }
  jpeg_finish_compress(&cinfo);
  jpeg_destroy_compress(&cinfo);
  Bytes jpeg(buffer, buffer + size);
  std::free(buffer);
  return jpeg;
}

// Decodes `jpeg` through the library's two-pass quantiser, or plainly (desired = 0: the pixels in place of
// the indices).
Quantised DecompressJpeg(const Bytes& jpeg, int desired, bool dither) {
  jpeg_decompress_struct cinfo;
  jpeg_error_mgr error;
  cinfo.err = jpeg_std_error(&error);
  jpeg_create_decompress(&cinfo);
  jpeg_mem_src(&cinfo, jpeg.data(), static_cast<unsigned long>(jpeg.size()));
  jpeg_read_header(&cinfo, TRUE);
  cinfo.out_color_space = JCS_RGB;
  if (desired > 0) {
    cinfo.quantize_colors = TRUE;
    cinfo.two_pass_quantize = TRUE;
    cinfo.desired_number_of_colors = desired;
    cinfo.dither_mode = dither ? JDITHER_FS : JDITHER_NONE;
  }
  jpeg_start_decompress(&cinfo);
  const std::size_t rowBytes = static_cast<std::size_t>(cinfo.output_width) * cinfo.output_components;
  Bytes rows(rowBytes * cinfo.output_height);
  while (cinfo.output_scanline < cinfo.output_height) {
    JSAMPROW row = &rows[cinfo.output_scanline * rowBytes];
    jpeg_read_scanlines(&cinfo, &row, 1);
  }
  Quantised result;
  result.indices = rows;
  result.colours = cinfo.actual_number_of_colors;
  for (int c = 0; c < 3 && desired > 0; ++c)
    result.palette[c].assign(cinfo.colormap[c], cinfo.colormap[c] + result.colours);
  jpeg_finish_decompress(&cinfo);
  jpeg_destroy_decompress(&cinfo);
  return result;
}

class AgainstJpegLibrary : public ::testing::TestWithParam<std::tuple<int, bool>> {};

// The JPEG library quantises red, green, blue with red as channel 0, exactly the weighting and cell
// layout ours uses; fed the pixels the library decodes plainly, ours must choose the same palette in the
// same order and map every pixel to the same index, dithered or not. The picture fills one histogram
// cell beyond 65535 pixels, so saturated counts are compared too. No difference is expected: the
// two-pass algorithm, its constants, its tie rules and its error limiting are the same.
TEST_P(AgainstJpegLibrary, SamePaletteAndSameIndicesOnTheDecodedPixels) {
  const auto [desired, dither] = GetParam();
  const int width = 403, height = 301;
  const Bytes jpeg = CompressJpeg(TestPicture(width, height, 7), width, height);
  const Bytes decoded = DecompressJpeg(jpeg, 0, false).indices;
  const Quantised reference = DecompressJpeg(jpeg, desired, dither);
  const Quantised ours = QuantiseWithHelper(decoded, width, height, desired, dither);

  ASSERT_EQ(reference.colours, desired) << "the picture has more colours than any palette asked for";
  ASSERT_EQ(reference.indices.size(), static_cast<std::size_t>(width) * height);
  ASSERT_EQ(ours.colours, reference.colours);
  for (int c = 0; c < 3; ++c)
    EXPECT_EQ(ours.palette[c], reference.palette[c]) << "channel " << c;
  EXPECT_TRUE(ours.indices == reference.indices) << "the indices differ";
}

INSTANTIATE_TEST_SUITE_P(ColoursAndDithering, AgainstJpegLibrary,
                         ::testing::Combine(::testing::Values(256, 64, 8), ::testing::Bool()));

// --- Settings, buffers and threads ---------------------------------------------------------------------

// With fewer occupied histogram cells than colours asked for, the palette is exactly the cells' centres,
// one entry each, and every pixel maps to its own cell's entry, with or without dithering.
TEST(Quantizer, FewerCellsThanColoursGiveOneEntryPerCellAtItsCentre) {
  Bytes uniform, distinct;
  for (int i = 0; i < 15; ++i)
    uniform.insert(uniform.end(), {201, 33, 90});
  for (int i = 0; i < 12; ++i)
    distinct.insert(distinct.end(),
                    {static_cast<unsigned char>(i * 20), static_cast<unsigned char>(255 - i * 21),
                     static_cast<unsigned char>(i * 77 % 256)});
  for (const auto& [pixels, dither] : {std::pair{&uniform, false}, {&uniform, true}, {&distinct, false}}) {
    const int count = static_cast<int>(pixels->size() / 3);
    const Quantised q = QuantiseWithHelper(*pixels, count, 1, 256, dither);
    std::set<std::tuple<int, int, int>> centres;
    for (int i = 0; i < count; ++i) {
      const unsigned char* p = &(*pixels)[static_cast<std::size_t>(i) * 3];
      const auto centre = std::make_tuple(CellCentre(0, p[0]), CellCentre(1, p[1]), CellCentre(2, p[2]));
      centres.insert(centre);
      const int k = q.indices[static_cast<std::size_t>(i)];
      ASSERT_LT(k, q.colours);
      EXPECT_EQ(std::make_tuple(int{q.palette[0][k]}, int{q.palette[1][k]}, int{q.palette[2][k]}), centre)
          << i;
    }
    // Every cell's centre is an entry, so as many entries as cells leaves room for no other.
    EXPECT_EQ(q.colours, static_cast<int>(centres.size())) << count << " " << dither;
  }
}

TEST(Quantizer, AHelperPutsBackTheSettingsItFoundAndClampsSizesBelowOne) {
  const auto settings = [](const QuantizationHelper& q) {
    return std::make_tuple(q.GetImageWidth(), q.GetImageHeight(), q.GetDesiredNumberOfColors(),
                           q.GetActualNumberOfColors(), q.GetDitherColors(), q.IsPrepared());
  };
  const auto before = settings(QuantizationHelper());
  {
    QuantizationHelper q;
    q.SetDesiredNumberOfColors(100);
    q.init(0, -5, !std::get<4>(before), 77);
    EXPECT_EQ(settings(q), std::make_tuple(1, 1, 100, 77, !std::get<4>(before), true));
  }
  EXPECT_TRUE(settings(QuantizationHelper()) == before && !std::get<5>(before));
}

TEST(Quantizer, ADesiredCountOutsideEightTo256PreparesNothingAndRowsAreIgnored) {
  for (unsigned desired : {0u, 7u, 257u, 100000u}) {
    QuantizationHelper q;
    q.SetDesiredNumberOfColors(desired);
    q.init(4, 1, true, desired);
    EXPECT_FALSE(q.IsPrepared()) << desired;
    const unsigned char row[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    unsigned char out[4] = {9, 9, 9, 9};
    for (bool first : {true, false}) {
      q.start_pass_2_quant(first);
      q.post_process_data(row, out);
      q.finish_pass();
    }
    EXPECT_EQ(Bytes(out, out + 4), Bytes(4, 9));
  }
}

// Jobs of different sizes, colour counts and dithering take the process-wide quantiser at once.
TEST(Quantizer, ThreadsQuantisingAtOnceGetWhatEachGetsAlone) {
  constexpr int kJobs = 4;
  const auto run = [](int i) {
    const int width = 40 + 13 * i, height = 30 + 7 * i;
    const Quantised q = QuantiseWithHelper(TestPicture(width, height, 100u + static_cast<unsigned>(i)), width,
                                           height, i % 2 ? 64 : 256, i % 2 == 0);
    Bytes all = q.indices;
    for (const Bytes& channel : q.palette)
      all.insert(all.end(), channel.begin(), channel.end());
    return all;
  };
  std::vector<Bytes> alone;
  for (int i = 0; i < kJobs; ++i)
    alone.push_back(run(i));
  std::vector<int> mismatches(kJobs, 0);
  std::vector<std::thread> threads;
  for (int i = 0; i < kJobs; ++i)
    threads.emplace_back([&, i] {
      for (int round = 0; round < 3; ++round)
        mismatches[i] += run(i) != alone[i];
    });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(mismatches, std::vector<int>(kJobs, 0));
}

}  // namespace
}  // namespace imagery
