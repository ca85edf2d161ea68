// The conversion kernels and the objects that choose them. A row is cut into chunks; each chunk is
// decoded into planar linear floats by a loop fixed for the source format, then encoded by a loop fixed
// for the target (source_decoding.h, target_encoding.h). Code sources may instead map each code through
// a table of results (code_tables.h), and 8-bit grey sources copy one of their 256 result pixels.
#include "convert/row_converter.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <vector>

#include "convert/code_tables.h"
#include "convert/conversion_plan.h"
#include "convert/source_decoding.h"
#include "convert/target_encoding.h"

namespace imagery::convert {

struct ConverterState {
  using Kernel = void (*)(const ConverterState&, const unsigned char*, unsigned char*, int);

  ConverterState(EImageType sourceType, GammaValue sourceGamma, EImageType targetType, GammaValue targetGamma,
                 const GreyStretch& stretch)
      : source(sourceType, sourceGamma), target(targetType, targetGamma, stretch) {}

  SourceDecoding source;
  TargetEncoding target;
  CodeTables tables;
  Kernel kernel = nullptr;
};

TargetEncoding::TargetEncoding(EImageType type, GammaValue gamma, const GreyStretch& grey)
    : stretch(grey),
      identityStretch(!grey.invert && grey.min == 0.0f && !std::signbit(grey.min) && grey.max == 1.0f) {
  const SampleKind kind = LayoutOf(type).colour;
  if (kind == SampleKind::Code8) {
    encode8.emplace(gamma, PowerPrecision::Single);
  } else if (kind == SampleKind::Code16) {
    // Grey goes through the encoding of single values (double-precision powers), colour through ToRGB.
    encode16.emplace(gamma, IsGrayscale(type) ? PowerPrecision::Double : PowerPrecision::Single);
  } else if (kind == SampleKind::SharedExponent) {
    packRGBE = detail::RGBERowPacker(cpu::Active());
  }
}

namespace {

template <EImageType S, EImageType D, cpu::Level L>
void ConvertThroughFloats(const ConverterState& state, const unsigned char* p, unsigned char* q, int count) {
  Planar planar;
  for (int done = 0; done < count; done += kChunkPixels) {
    const int n = std::min(kChunkPixels, count - done);
    if constexpr (IsGrayscale(D)) {
      float grey[kChunkPixels];
      DecodeGrey<S, L>(state.source, p, n, planar, grey);
      state.target.Stretch(grey, n);
      EncodeGrey<D>(state.target, grey, n, q);
    } else {
      DecodeColour<S, L>(state.source, p, n, planar);
      if constexpr (HasAlpha(D))
        DecodeAlpha<S>(p, n, planar.a);
      EncodeColour<D, IsGrayscale(S), L>(state.target, planar, n, q);
    }
    p += static_cast<std::ptrdiff_t>(n) * BytesPerPixel(S);
    q += static_cast<std::ptrdiff_t>(n) * BytesPerPixel(D);
  }
}

template <EImageType S, EImageType D>
void ConvertByTable(const ConverterState& state, const unsigned char* p, unsigned char* q, int count) {
  constexpr FormatLayout FS = LayoutOf(S);
  constexpr FormatLayout FD = LayoutOf(D);
  const CodeTables& tables = state.tables;
  if constexpr (FD.colour == SampleKind::Float32) {
    static_assert(FD.grey);
    const float* table = tables.floats.data();
    for (int i = 0; i < count; ++i, p += FS.bytes, q += FD.bytes)
      detail::StoreFloat(q + FD.red, table[GreyCode<S>(p)]);
  } else if constexpr (FD.colour == SampleKind::SharedExponent) {
    static_assert(FD.red == 0 && FD.green == 1 && FD.blue == 2 && FD.exponent == 3,
                  "the table holds the four colour bytes in memory order");
    const std::uint32_t* table = tables.sharedExponent.data();
    for (int i = 0; i < count; ++i, p += FS.bytes, q += FD.bytes) {
      std::memcpy(q, &table[GreyCode<S>(p)], 4);
      q[FD.alpha] = HasAlpha(S) ? detail::ScaleTo8(AlphaOf<S>(p)) : kOpaque8;
    }
  } else {
    using Code = detail::StoredSample<FD.colour>;
    const Code* table;
    if constexpr (FD.colour == SampleKind::Code8)
      table = tables.codes8.data();
    else
      table = tables.codes16.data();
    for (int i = 0; i < count; ++i, p += FS.bytes, q += FD.bytes) {
      if constexpr (FS.grey) {
        const Code code = table[GreyCode<S>(p)];
        detail::StoreStored<FD.colour>(q + FD.red, code);
        if constexpr (!FD.grey) {
          detail::StoreStored<FD.colour>(q + FD.green, code);
          detail::StoreStored<FD.colour>(q + FD.blue, code);
        }
      } else {
        detail::StoreStored<FD.colour>(q + FD.blue, table[detail::LoadStored<FS.colour>(p + FS.blue)]);
        detail::StoreStored<FD.colour>(q + FD.green, table[detail::LoadStored<FS.colour>(p + FS.green)]);
        detail::StoreStored<FD.colour>(q + FD.red, table[detail::LoadStored<FS.colour>(p + FS.red)]);
      }
      if constexpr (FD.alphaKind != SampleKind::None) {
        unsigned a;
        if constexpr (kAlphaCodeTable<S, D>)
          a = tables.alphaCodes[detail::LoadStored<FS.alphaKind>(p + FS.alpha)];
        else if constexpr (FD.alphaKind == SampleKind::Code8)
          a = HasAlpha(S) ? detail::ScaleTo8(AlphaOf<S>(p)) : kOpaque8;
        else
          a = HasAlpha(S) ? detail::ScaleTo16(AlphaOf<S>(p)) : kOpaque16;
        detail::StoreStored<FD.alphaKind>(q + FD.alpha, static_cast<detail::StoredSample<FD.alphaKind>>(a));
      }
    }
  }
}

template <EImageType S>
void ConvertSharedExponentByCodes(const ConverterState& state, const unsigned char* p, unsigned char* q,
                                  int count) {
  constexpr FormatLayout FS = LayoutOf(S);
  constexpr FormatLayout FD = LayoutOf(IT_RGBEA);
  static_assert(FS.colour == SampleKind::Code8 && !FS.grey);
  const CodeTables& tables = state.tables;
  const unsigned char* mantissas = tables.mantissas8.data();
  for (int i = 0; i < count; ++i, p += FS.bytes, q += FD.bytes) {
    const unsigned b = p[FS.blue];
    const unsigned g = p[FS.green];
    const unsigned r = p[FS.red];
    const unsigned top = std::max(std::max(b, g), r);
    const unsigned char* run = mantissas + top * 256;
    unsigned alpha = kOpaque8;
    if constexpr (FS.alphaKind == SampleKind::Code8)
      alpha = tables.alpha8[p[FS.alpha]];
    const auto at = [](unsigned byte, int offset) {
      return static_cast<std::uint64_t>(byte) << (8 * offset);
    };
    const std::uint64_t word = at(run[r], FD.red) | at(run[g], FD.green) | at(run[b], FD.blue) |
                               at(tables.exponents8[top], FD.exponent) | at(alpha, FD.alpha);
    StorePixel<FD.bytes>(q, word, i + 1 == count);
  }
}

// 8-bit grey sources: every result pixel is one of 256, copied from the table.
template <EImageType D>
void ConvertByResultPixels(const ConverterState& state, const unsigned char* p, unsigned char* q, int count) {
  constexpr std::size_t kOut = BytesPerPixel(D);
  const unsigned char* pixels = state.tables.pixels.data();
  for (int i = 0; i < count; ++i, q += kOut)
    std::memcpy(q, pixels + GreyCode<IT_Grayscale8>(p + i * BytesPerPixel(IT_Grayscale8)) * kOut, kOut);
}

template <EImageType S, EImageType D, cpu::Level L>
ConverterState::Kernel MakeKernel(ConverterState& state, const ConversionPlan& plan) {
  ConverterState::Kernel kernel = &ConvertThroughFloats<S, D, L>;
  if constexpr (CodeTableServes(S, D)) {
    if (plan.rows == RowStrategy::CodeTable) {
      BuildCodeTable<S, D>(state.source, state.target, state.tables);
      BuildAlphaTable<S, D>(state.tables);
      kernel = &ConvertByTable<S, D>;
    }
  }
  if constexpr ((S == IT_RGB8 || S == IT_RGBA8) && D == IT_RGBEA) {
    if (plan.rows == RowStrategy::SharedExponentByCodes &&
        BuildSharedExponentTables8(state.source, state.tables))
      kernel = &ConvertSharedExponentByCodes<S>;
  }
  if constexpr (S == IT_Grayscale8) {
    if (plan.resultPixelPerGreyCode) {
      unsigned char codes[256];
      for (int code = 0; code < 256; ++code)
        codes[code] = static_cast<unsigned char>(code);
      state.tables.pixels.resize(256 * static_cast<std::size_t>(BytesPerPixel(D)));
      kernel(state, codes, state.tables.pixels.data(), 256);
      kernel = &ConvertByResultPixels<D>;
    }
  }
  return kernel;
}

}  // namespace

RowConverter::RowConverter(EImageType sourceType, GammaValue sourceGamma, EImageType target,
                           GammaValue targetGamma, const GreyStretch& stretch, std::int64_t pixelCount)
    : state_(std::make_unique<ConverterState>(sourceType, sourceGamma, target, targetGamma, stretch)) {
  ConverterState& state = *state_;
  const ConversionPlan plan = PlanConversion(sourceType, target, pixelCount);
  state.kernel = DispatchImageType(sourceType, [&](auto s) {
    return DispatchImageType(target, [&](auto d) {
      return DispatchKernelLevel(KernelLevel(), [&](auto l) -> ConverterState::Kernel {
        constexpr EImageType D = decltype(d)::value;
        if constexpr (IsConversionTarget(D))
          return MakeKernel<decltype(s)::value, D, decltype(l)::value>(state, plan);
        else
          return nullptr;
      });
    });
  });
}

RowConverter::~RowConverter() = default;

void RowConverter::Convert(const unsigned char* source, unsigned char* target, int count) const {
  if (count > 0 && state_->kernel != nullptr)
    state_->kernel(*state_, source, target, count);
}

// --- RowReencoder -----------------------------------------------------------------------------------------

struct RowReencoder::State {
  using Kernel = void (*)(const State&, unsigned char*, int);

  std::vector<unsigned char> table8;
  std::vector<unsigned short> table16;
  // 16-bit images too small to pay for a table convert each value.
  std::optional<GammaDecodeTable16> decode16;
  std::optional<GammaEncoder16> encode16;
  Kernel kernel = nullptr;

  unsigned short Map16(unsigned short code) const {
    return table16.empty() ? (*encode16)((*decode16)(code)) : table16[code];
  }
};

namespace {

template <EImageType T>
void ReencodeRow(const RowReencoder::State& state, unsigned char* p, int count) {
  constexpr FormatLayout F = LayoutOf(T);
  const auto reencode = [&state](unsigned char* sample) {
    if constexpr (F.colour == SampleKind::Code8)
      *sample = state.table8[*sample];
    else
      detail::StoreBE16(sample, state.Map16(detail::LoadBE16(sample)));
  };
  for (int i = 0; i < count; ++i, p += F.bytes) {
    reencode(p + F.red);
    if constexpr (!F.grey) {
      reencode(p + F.green);
      reencode(p + F.blue);
    }
  }
}

}  // namespace

RowReencoder::RowReencoder(EImageType type, GammaValue from, GammaValue to, std::int64_t valueCount)
    : state_(std::make_unique<State>()) {
  State& state = *state_;
  if (!IsGammaEncoded(type))
    return;
  state.kernel = DispatchImageType(type, [](auto t) -> State::Kernel {
    constexpr EImageType T = decltype(t)::value;
    if constexpr (IsGammaEncoded(T))
      return &ReencodeRow<T>;
    else
      return nullptr;
  });
  // Colour goes through CLRFLOATFrom and ToRGB (single-precision powers); grey through the encoding of
  // single values (double-precision powers).
  const PowerPrecision precision = IsGrayscale(type) ? PowerPrecision::Double : PowerPrecision::Single;
  if (LayoutOf(type).colour == SampleKind::Code8) {
    const GammaDecodeTable8 decode(from);
    const GammaEncoder8 encode(to, precision);
    state.table8.resize(256);
    encode.EncodeRow(decode.Data(), state.table8.data(), 256);
    return;
  }
  state.decode16.emplace(from);
  state.encode16.emplace(to, precision);
  if (ReencodeByTable(type, valueCount)) {
    state.table16.resize(65536);
    state.encode16->EncodeRow(state.decode16->Data(), state.table16.data(), 65536);
  }
}

RowReencoder::~RowReencoder() = default;

void RowReencoder::Reencode(unsigned char* pixels, int count) const {
  if (state_->kernel != nullptr)
    state_->kernel(*state_, pixels, count);
}

}  // namespace imagery::convert
