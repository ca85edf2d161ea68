// One table of our operations beside OpenCV's on the same pixels, each pair measured in the same run,
// alternating, so that both sides meet the same machine: operation, our median time, OpenCV's median
// time writing a fresh cv::Mat each call (as ours makes a new image each call), their ratio, OpenCV's
// time writing into a reused cv::Mat, and a memcpy of the larger of the source and the result.
//
// Ours keeps its exact arithmetic (sRGB decoded to linear light and encoded back, exact rounding);
// OpenCV works on the stored codes in fixed point. Usage: imagery_peer_table [rounds] (default 9).
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "imagery/conversions.h"
#include "imagery/image.h"
#include "imagery/resample.h"

namespace imagery {
namespace {

using Clock = std::chrono::steady_clock;

double Seconds(const std::function<void()>& f) {
  const auto start = Clock::now();
  f();
  return std::chrono::duration<double>(Clock::now() - start).count();
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

Image RandomImage(int size, EImageType type) {
  Image image(size, size, type, IsFloat(type) ? gamma::Linear : gamma::sRGB);
  PixelPlane& plane = image.GetImplRef().Plane();
  std::mt19937 random(static_cast<unsigned>(size) * 31u + static_cast<unsigned>(type));
  for (int y = 0; y < size; ++y) {
    unsigned char* row = plane.Row(y);
    if (IsFloat(type)) {
      std::uniform_real_distribution<float> value(0.0f, 1.0f);
      for (int i = 0; i < plane.BytesPerLine(); i += 4) {
        const float v = value(random);
        std::memcpy(row + i, &v, sizeof v);
      }
    } else {
      for (int i = 0; i < plane.BytesPerLine(); ++i)
        row[i] = static_cast<unsigned char>(random());
    }
  }
  return image;
}

cv::Mat MatOf(const Image& image) {
  const PixelPlane& plane = image.GetImplRef().Plane();
  const int depth = IsFloat(plane.Type()) ? CV_32F : CV_8U;
  return cv::Mat(plane.Height(), plane.Width(), CV_MAKETYPE(depth, 4),
                 const_cast<unsigned char*>(plane.Data()), static_cast<std::size_t>(plane.BytesPerLine()));
}

struct Row {
  std::string operation;
  std::size_t largerBytes;
  std::function<void()> ours;
  std::function<void(cv::Mat&)> opencv;  // given a fresh or a reused output
};

void PrintTable(std::vector<Row>& rows, int rounds) {
  std::printf("%-44s %10s %12s %8s %14s %10s\n", "operation", "ours ms", "OpenCV ms", "ratio",
              "OpenCV reused", "memcpy ms");
  for (Row& row : rows) {
    std::vector<unsigned char> from(row.largerBytes, 1), to(row.largerBytes, 2);
    std::vector<double> ours, fresh, reused, copies;
    cv::Mat kept;
    row.opencv(kept);
    for (int round = 0; round < rounds; ++round) {
      ours.push_back(Seconds(row.ours));
      fresh.push_back(Seconds([&] {
        cv::Mat result;
        row.opencv(result);
      }));
      reused.push_back(Seconds([&] { row.opencv(kept); }));
      copies.push_back(Seconds([&] { std::memcpy(to.data(), from.data(), row.largerBytes); }));
    }
    const double a = Median(ours) * 1e3, b = Median(fresh) * 1e3;
    std::printf("%-44s %10.2f %12.2f %8.2f %14.2f %10.2f\n", row.operation.c_str(), a, b, a / b,
                Median(reused) * 1e3, Median(copies) * 1e3);
    std::fflush(stdout);
  }
}

int Run(int rounds) {
  const Image rgba8Large = RandomImage(4096, IT_RGBA8);
  const Image rgba8Small = RandomImage(1024, IT_RGBA8);
  const Image floatLarge = RandomImage(4096, IT_RGBA32f);
  const Image floatSmall = RandomImage(1024, IT_RGBA32f);
  const std::size_t large8 = std::size_t(4096) * 4096 * 4, largeFloat = large8 * 4;

  const auto resample = [](const Image& source, int size) {
    return [&source, size] {
      Image work = source;
      Resample(work, size, size, ResampleOpts());
    };
  };
  const auto cvResize = [](const Image& source, int size, int interpolation) {
    return [&source, size, interpolation](cv::Mat& result) {
      cv::resize(MatOf(source), result, cv::Size(size, size), 0, 0, interpolation);
    };
  };

  std::vector<Row> rows;
  rows.push_back({"new zero-filled 4096x4096 RGBA8 image", large8,
                  [] { Image image(4096, 4096, IT_RGBA8, gamma::sRGB); },
                  [](cv::Mat& result) { result = cv::Mat::zeros(4096, 4096, CV_8UC4); }});
  rows.push_back({"area 4096->1024 RGBA8 sRGB (INTER_AREA)", large8, resample(rgba8Large, 1024),
                  cvResize(rgba8Large, 1024, cv::INTER_AREA)});
  rows.push_back({"area 4096->1024 RGBA32f (INTER_AREA)", largeFloat, resample(floatLarge, 1024),
                  cvResize(floatLarge, 1024, cv::INTER_AREA)});
  rows.push_back({"bilinear 1024->4096 RGBA8 sRGB (INTER_LINEAR)", large8, resample(rgba8Small, 4096),
                  cvResize(rgba8Small, 4096, cv::INTER_LINEAR)});
  rows.push_back({"bilinear 1024->4096 RGBA32f (INTER_LINEAR)", largeFloat, resample(floatSmall, 4096),
                  cvResize(floatSmall, 4096, cv::INTER_LINEAR)});
  rows.push_back(
      {"RGBA8 sRGB -> grey 8 (cvtColor BGRA2GRAY)", large8,
       [&rgba8Large] {
         Image work = rgba8Large;
         ToGrayscale8(work, gamma::sRGB, CheckInImageList(false), AutoScaleGrayScale(false),
                      InvertGrayRange(false), CAI_Care);
       },
       [&rgba8Large](cv::Mat& result) { cv::cvtColor(MatOf(rgba8Large), result, cv::COLOR_BGRA2GRAY); }});
  std::printf("%d rounds, medians; %d OpenCV threads\n", rounds, cv::getNumThreads());
  PrintTable(rows, rounds);
  return 0;
}

}  // namespace
}  // namespace imagery

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 9;
  return imagery::Run(rounds);
}
