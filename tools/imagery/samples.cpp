// The sample atlas: each island is described by a height, a colour, a roughness and a coverage per
// point; the normal map is derived from the heights so that the three maps agree.
#include "samples.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "imagery/pixel_access.h"

namespace imagery::cli {
namespace {

constexpr float kPi = 3.14159265f;

float Hash(int x, int y, unsigned draw) {
  std::uint32_t h = static_cast<std::uint32_t>(x) * 0x8da6b343u ^
                    static_cast<std::uint32_t>(y) * 0xd8163841u ^ draw * 0xcb1ab31fu;
  h ^= h >> 13;
  h *= 0x5bd1e995u;
  h ^= h >> 15;
  return static_cast<float>(h & 0xFFFFFF) / static_cast<float>(0xFFFFFF);
}

float SmoothNoise(float x, float y, unsigned draw) {
  const int ix = static_cast<int>(std::floor(x)), iy = static_cast<int>(std::floor(y));
  float fx = x - static_cast<float>(ix), fy = y - static_cast<float>(iy);
  fx = fx * fx * (3 - 2 * fx);
  fy = fy * fy * (3 - 2 * fy);
  const float top = Hash(ix, iy, draw) * (1 - fx) + Hash(ix + 1, iy, draw) * fx;
  const float bottom = Hash(ix, iy + 1, draw) * (1 - fx) + Hash(ix + 1, iy + 1, draw) * fx;
  return top * (1 - fy) + bottom * fy;
}

// Three octaves of value noise, in [0, 1].
float Fractal(float x, float y, unsigned draw) {
  return (SmoothNoise(x, y, draw) * 4 + SmoothNoise(x * 2, y * 2, draw + 1) * 2 +
          SmoothNoise(x * 4, y * 4, draw + 2)) /
         7.0f;
}

float Clamp01(float v) {
  return std::min(1.0f, std::max(0.0f, v));
}

struct Surface {
  float height = 0;
  LinearRGB_T<float> colour{0, 0, 0};
  float roughness = 0;
  float coverage = 1;
};

// How far (u, v) lies inside a grid cell of the given counts, as the distance to the nearest joint in
// cell units: small values are mortar or grout.
float JointDistance(float u, float v, float columns, float rows, float& cellX, float& cellY) {
  const float x = u * columns, y = v * rows;
  cellX = std::floor(x);
  cellY = std::floor(y);
  const float fx = x - cellX, fy = y - cellY;
  return std::min(std::min(fx, 1 - fx) / columns, std::min(fy, 1 - fy) / rows);
}

Surface Bricks(float u, float v, unsigned draw) {
  const float rows = 8;
  const float row = std::floor(v * rows);
  const float shifted = u + (static_cast<int>(row) % 2 ? 0.125f : 0.0f);
  float cx, cy;
  const float joint = JointDistance(shifted - std::floor(shifted), v, 4, rows, cx, cy);
  const float brickNoise = Hash(static_cast<int>(cx), static_cast<int>(cy), draw);
  const float grain = Fractal(u * 24, v * 24, draw);
  Surface s;
  if (joint < 0.012f) {
    s.height = 0.1f + 0.1f * grain;
    s.colour = {0.32f * (0.8f + 0.4f * grain), 0.30f * (0.8f + 0.4f * grain), 0.27f * (0.8f + 0.4f * grain)};
    s.roughness = 0.95f;
  } else {
    const float bevel = Clamp01((joint - 0.012f) / 0.015f);
    s.height = 0.35f + 0.55f * bevel + 0.1f * grain;
    const float tone = 0.7f + 0.5f * brickNoise + 0.3f * (grain - 0.5f);
    s.colour = {0.42f * tone, 0.12f * tone, 0.06f * tone};
    s.roughness = 0.7f + 0.2f * grain;
  }
  return s;
}

Surface Planks(float u, float v, unsigned draw) {
  const float planks = 5;
  const float x = u * planks;
  const float plank = std::floor(x);
  const float fx = x - plank;
  const float edge = std::min(fx, 1 - fx);
  const float offset = Hash(static_cast<int>(plank), 7, draw) * 10;
  const float wobble = Fractal(u * 6, v * 2 + offset, draw + 5);
  const float rings = 0.5f + 0.5f * std::sin((fx * 9 + wobble * 6) * kPi + offset);
  Surface s;
  s.height = edge < 0.03f ? 0.1f : 0.7f + 0.15f * rings;
  const float tone = 0.75f + 0.35f * Hash(static_cast<int>(plank), 3, draw) + 0.25f * (rings - 0.5f);
  s.colour = {0.45f * tone, 0.26f * tone, 0.10f * tone};
  if (edge < 0.03f)
    s.colour = {0.05f, 0.03f, 0.02f};
  s.roughness = 0.45f + 0.2f * rings;
  return s;
}

Surface Tiles(float u, float v, unsigned draw) {
  float cx, cy;
  const float joint = JointDistance(u, v, 4, 4, cx, cy);
  const float speckle = Fractal(u * 40, v * 40, draw + 9);
  Surface s;
  if (joint < 0.015f) {
    s.height = 0.15f;
    s.colour = {0.55f, 0.55f, 0.52f};
    s.roughness = 0.9f;
  } else {
    s.height = 0.6f + 0.3f * Clamp01((joint - 0.015f) / 0.02f);
    const bool dark = (static_cast<int>(cx) + static_cast<int>(cy)) % 2 != 0;
    s.colour = dark ? LinearRGB_T<float>{0.02f, 0.07f, 0.35f} : LinearRGB_T<float>{0.75f, 0.74f, 0.68f};
    s.colour.r *= 0.9f + 0.2f * speckle;
    s.colour.g *= 0.9f + 0.2f * speckle;
    s.colour.b *= 0.9f + 0.2f * speckle;
    s.roughness = 0.12f + 0.1f * speckle;
  }
  return s;
}

// A tuft of grass blades a few pixels wide, the kind of alpha-tested foliage whose coverage a plain
// mip-map average loses. Coverage is exact at 4 x 4 samples so that edges step like real foliage alpha.
Surface Grass(float u, float v, float pixel, unsigned draw) {
  constexpr int kBlades = 13;
  // The blade covering (pu, pv), and how far across it the point lies (0 centre, 1 edge); -1 for none.
  auto blade = [draw](float pu, float pv, float& across) {
    for (int k = 0; k < kBlades; ++k) {
      const float base = 0.06f + 0.88f * static_cast<float>(k) / (kBlades - 1);
      const float length = 0.55f + 0.4f * Hash(k, 1, draw);
      const float lean = (Hash(k, 2, draw) - 0.5f) * 0.5f;
      const float t = (1.0f - pv) / length;
      if (t < 0 || t > 1)
        continue;
      const float centre = base + lean * t * t;
      const float half = 0.02f * (1 - t);
      const float d = std::fabs(pu - centre);
      if (d < half) {
        across = d / half;
        return k;
      }
    }
    return -1;
  };
  int hits = 0;
  float across = 0;
  for (int j = 0; j < 4; ++j) {
    for (int i = 0; i < 4; ++i) {
      float a;
      hits += blade(u + (static_cast<float>(i) + 0.5f) * pixel / 4,
                    v + (static_cast<float>(j) + 0.5f) * pixel / 4, a) >= 0;
    }
  }
  Surface s;
  s.coverage = static_cast<float>(hits) / 16.0f;
  const int k = blade(u + pixel / 2, v + pixel / 2, across);
  const float tone = 0.7f + 0.5f * (k >= 0 ? Hash(k, 3, draw) : 0.5f);
  const float up = 1.0f - v;  // lighter towards the tips
  s.height = 0.4f + 0.5f * (1 - across);
  s.colour = {(0.05f + 0.15f * up) * tone, (0.2f + 0.3f * up) * tone, 0.03f * tone};
  s.roughness = 0.55f + 0.1f * across;
  return s;
}

}  // namespace

SampleAtlas MakeSampleAtlas(int size, unsigned variant) {
  size = std::max(size, 16);
  const int cell = size / 2;
  const int margin = std::max(2, size / 24);
  const unsigned draw = 17 + variant * 101;
  const float hueShift = static_cast<float>(variant % 7) * 0.06f;

  std::vector<Surface> surfaces(static_cast<std::size_t>(size) * size);
  std::vector<bool> defined(surfaces.size(), false);
  for (int y = 0; y < size; ++y) {
    for (int x = 0; x < size; ++x) {
      const int cellX = std::min(x / cell, 1), cellY = std::min(y / cell, 1);
      const int localX = x - cellX * cell - margin, localY = y - cellY * cell - margin;
      const int island = cell - 2 * margin;
      if (localX < 0 || localY < 0 || localX >= island || localY >= island)
        continue;
      const float pixel = 1.0f / static_cast<float>(island);
      const float u = static_cast<float>(localX) * pixel, v = static_cast<float>(localY) * pixel;
      Surface s;
      switch (cellY * 2 + cellX) {
        case 0:
          s = Bricks(u, v, draw);
          break;
        case 1:
          s = Planks(u, v, draw);
          break;
        case 2:
          s = Tiles(u, v, draw);
          break;
        default:
          s = Grass(u, v, pixel, draw);
          break;
      }
      if (s.coverage <= 0)
        continue;
      s.colour = {Clamp01(s.colour.r * (1 - hueShift) + s.colour.b * hueShift), Clamp01(s.colour.g),
                  Clamp01(s.colour.b * (1 - hueShift) + s.colour.r * hueShift)};
      const std::size_t index = static_cast<std::size_t>(y) * size + x;
      surfaces[index] = s;
      defined[index] = true;
    }
  }

  SampleAtlas atlas{Image(size, size, IT_RGBA8, gamma::sRGB), Image(size, size, IT_RGB8, gamma::Linear),
                    Image(size, size, IT_Grayscale8, gamma::Linear)};
  auto heightAt = [&](int x, int y) {
    x = std::clamp(x, 0, size - 1);
    y = std::clamp(y, 0, size - 1);
    const std::size_t index = static_cast<std::size_t>(y) * size + x;
    return defined[index] ? surfaces[index].height : 0.0f;
  };
  const float strength = static_cast<float>(size) / 256.0f;
  for (int y = 0; y < size; ++y) {
    PixelAccess colour(atlas.color.GetImplRef().Plane(), 0, y);
    PixelAccess normal(atlas.normal.GetImplRef().Plane(), 0, y);
    PixelAccess rough(atlas.roughness.GetImplRef().Plane(), 0, y);
    for (int x = 0; x < size; ++x, colour.Next(), normal.Next(), rough.Next()) {
      const std::size_t index = static_cast<std::size_t>(y) * size + x;
      if (!defined[index]) {
        colour.SetPixelRGBA({0, 0, 0}, 0);
        normal.SetPixelRGB({0, 0, 0});
        rough.SetPixelGrayscale(0);
        continue;
      }
      const Surface& s = surfaces[index];
      colour.SetPixelRGBA(s.colour, s.coverage);
      const float dx = (heightAt(x + 1, y) - heightAt(x - 1, y)) * strength;
      const float dy = (heightAt(x, y + 1) - heightAt(x, y - 1)) * strength;
      const float length = std::sqrt(dx * dx + dy * dy + 1);
      normal.SetPixelRGB({(-dx / length + 1) / 2, (dy / length + 1) / 2, (1 / length + 1) / 2});
      rough.SetPixelGrayscale(s.roughness);
    }
  }
  atlas.color.SetPtype(PT_Color);
  atlas.normal.SetPtype(PT_NormalMap);
  atlas.roughness.SetPtype(PT_Roughness);
  return atlas;
}

Image MakeSampleSky(int width, int height) {
  Image sky(std::max(width, 1), std::max(height, 1), IT_RGB32f, gamma::Linear);
  const float sunX = 0.7f * static_cast<float>(width), sunY = 0.3f * static_cast<float>(height);
  const float sunRadius = 0.04f * static_cast<float>(std::min(width, height)) + 1;
  for (int y = 0; y < sky.Height(); ++y) {
    PixelAccess pixel(sky.GetImplRef().Plane(), 0, y);
    const float t = static_cast<float>(y) / static_cast<float>(std::max(height - 1, 1));
    for (int x = 0; x < sky.Width(); ++x, pixel.Next()) {
      LinearRGB_T<float> c{0.15f + 0.75f * t, 0.3f + 0.5f * t, 0.85f - 0.15f * t};
      const float d = std::hypot(static_cast<float>(x) - sunX, static_cast<float>(y) - sunY);
      if (d < sunRadius) {
        c = {40.0f, 36.0f, 30.0f};
      } else {
        const float glow = 2.0f * std::exp(-(d - sunRadius) / (3 * sunRadius));
        c = {c.r + glow, c.g + glow * 0.9f, c.b + glow * 0.7f};
      }
      pixel.SetPixelRGB(c);
    }
  }
  return sky;
}

}  // namespace imagery::cli
