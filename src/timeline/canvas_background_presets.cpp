#include <array>
#include <cstddef>

#include "timeline/edit_timeline.h"

// The colours of the canvas background presets. Their words are the preset's name table; this is
// the rest of what a preset is.

namespace vumo {

namespace {

struct PresetColours {
  CanvasBackgroundPreset preset;
  int start[3];
  int end[3];
};

// In declaration order: twelve gradients, then twelve solids with equal colours.
constexpr std::array<PresetColours, 24> presetColourTable{{
    {CanvasBackgroundPreset::midnightViolet, {14, 19, 31}, {51, 26, 82}},
    {CanvasBackgroundPreset::deepOcean, {15, 23, 42}, {22, 78, 99}},
    {CanvasBackgroundPreset::graphite, {17, 24, 39}, {55, 65, 81}},
    {CanvasBackgroundPreset::dusk, {42, 18, 21}, {124, 45, 18}},
    {CanvasBackgroundPreset::darkRose, {41, 18, 30}, {131, 24, 67}},
    {CanvasBackgroundPreset::forestGradient, {5, 46, 43}, {20, 83, 45}},
    {CanvasBackgroundPreset::mintSky, {167, 243, 208}, {186, 230, 253}},
    {CanvasBackgroundPreset::lavenderMist, {221, 214, 254}, {251, 207, 232}},
    {CanvasBackgroundPreset::warmSunrise, {253, 230, 138}, {252, 165, 165}},
    {CanvasBackgroundPreset::aurora, {14, 165, 233}, {139, 92, 246}},
    {CanvasBackgroundPreset::coralSunset, {251, 113, 133}, {253, 186, 116}},
    {CanvasBackgroundPreset::electricLime, {34, 197, 94}, {217, 249, 157}},
    {CanvasBackgroundPreset::midnight, {14, 19, 31}, {14, 19, 31}},
    {CanvasBackgroundPreset::charcoal, {24, 24, 27}, {24, 24, 27}},
    {CanvasBackgroundPreset::navy, {23, 37, 84}, {23, 37, 84}},
    {CanvasBackgroundPreset::plum, {46, 16, 101}, {46, 16, 101}},
    {CanvasBackgroundPreset::forest, {5, 46, 43}, {5, 46, 43}},
    {CanvasBackgroundPreset::warmGray, {41, 37, 36}, {41, 37, 36}},
    {CanvasBackgroundPreset::snow, {248, 250, 252}, {248, 250, 252}},
    {CanvasBackgroundPreset::pearl, {245, 243, 255}, {245, 243, 255}},
    {CanvasBackgroundPreset::sand, {254, 243, 199}, {254, 243, 199}},
    {CanvasBackgroundPreset::sky, {56, 189, 248}, {56, 189, 248}},
    {CanvasBackgroundPreset::coral, {251, 113, 133}, {251, 113, 133}},
    {CanvasBackgroundPreset::lime, {132, 204, 22}, {132, 204, 22}},
}};

constexpr std::size_t gradientPresetCount = 12;

// Rows are looked up by the preset's value, so both tables must follow the declaration order.
constexpr bool inDeclarationOrder() {
  for (std::size_t i = 0; i < presetColourTable.size(); ++i) {
    if (static_cast<std::size_t>(presetColourTable[i].preset) != i) return false;
    if (static_cast<std::size_t>(EnumNames<CanvasBackgroundPreset>::table[i].first) != i) return false;
  }
  return EnumNames<CanvasBackgroundPreset>::table.size() == presetColourTable.size();
}
static_assert(inDeclarationOrder());

const PresetColours& coloursOf(CanvasBackgroundPreset preset) {
  return presetColourTable[static_cast<std::size_t>(preset) % presetColourTable.size()];
}

}  // namespace

const std::array<CanvasBackgroundPreset, 24>& allCanvasBackgroundPresets() {
  static constexpr std::array<CanvasBackgroundPreset, 24> all = [] {
    std::array<CanvasBackgroundPreset, 24> presets{};
    for (std::size_t i = 0; i < presets.size(); ++i) presets[i] = presetColourTable[i].preset;
    return presets;
  }();
  return all;
}

CanvasBackgroundPresetColors presetColors(CanvasBackgroundPreset value) {
  const auto& entry = coloursOf(value);
  return {CanvasColorValue::fromRGB8(entry.start[0], entry.start[1], entry.start[2]),
          CanvasColorValue::fromRGB8(entry.end[0], entry.end[1], entry.end[2])};
}

CanvasBackground presetBackground(CanvasBackgroundPreset value) {
  return static_cast<std::size_t>(value) < gradientPresetCount ? CanvasBackground::gradient : CanvasBackground::solid;
}

CanvasBackgroundPreset defaultPreset(CanvasBackground background) {
  return background == CanvasBackground::gradient ? CanvasBackgroundPreset::midnightViolet
                                                  : CanvasBackgroundPreset::midnight;
}

}  // namespace vumo
