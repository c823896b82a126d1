// The images in the build tree: complete, of the size their folder says, distinct in shape, visible on any background.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <png.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;

const fs::path DATA = VORNET_DATA_FOLDER;
const fs::path IMAGES = DATA / "vornet-vi/images";
const fs::path HICOLOR = DATA / "icons/hicolor";

constexpr std::array NAMES = {"checkmark", "sync", "error", "QMT"};
constexpr std::array SIZES = {16, 22, 24, 32, 48, 64, 128, 256, 512};
constexpr std::array<std::pair<const char*, const char*>, 3> EMBLEMS = {
    {{"checkmark", "emblem-vornet-synced"}, {"sync", "emblem-vornet-pending"}, {"error", "emblem-vornet-skipped"}}};

/// A decoded picture: 8-bit sRGB with straight alpha, rows from the top.
struct Picture {
  struct Pixel {
    std::uint8_t red, green, blue, alpha;
    /// Belongs to the silhouette: more opaque than not.
    bool solid() const { return alpha >= 128; }
  };
  int width = 0;
  int height = 0;
  std::vector<Pixel> pixels;

  const Pixel& at(int x, int y) const {
    return pixels[static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x)];
  }
};

/// Decodes the whole file, checksums included; throws when it is not a sound PNG file.
Picture decode(const fs::path& file) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  const auto check = [&](int result) {
    if (result == 0) throw std::runtime_error(file.string() + ": " + image.message);
  };
  check(png_image_begin_read_from_file(&image, file.c_str()));
  image.format = PNG_FORMAT_RGBA;
  static_assert(sizeof(Picture::Pixel) == 4);
  Picture picture{static_cast<int>(image.width), static_cast<int>(image.height), {}};
  picture.pixels.resize(PNG_IMAGE_SIZE(image) / sizeof(Picture::Pixel));
  check(png_image_finish_read(&image, nullptr, picture.pixels.data(), 0, nullptr));
  return picture;
}

std::string contents(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

fs::path pngFile(int size, std::string_view name) {
  return IMAGES / std::to_string(size) / (std::string(name) + ".png");
}

fs::path svgFile(std::string_view name) {
  return IMAGES / "scalable" / (std::string(name) + ".svg");
}

/// Relative luminance, 0 to 1, of a grey or colour; https://www.w3.org/TR/WCAG21/#dfn-relative-luminance
double luminance(double red, double green, double blue) {
  const auto linear = [](double channel) {
    channel /= 255;
    return channel <= 0.04045 ? channel / 12.92 : std::pow((channel + 0.055) / 1.055, 2.4);
  };
  return 0.2126 * linear(red) + 0.7152 * linear(green) + 0.0722 * linear(blue);
}

/// Luminance of a pixel laid over a grey with `opacity`, 0 to 1.
double luminanceOver(const Picture::Pixel& pixel, double background, double opacity) {
  const double alpha = pixel.alpha / 255.0 * opacity;
  const auto over = [&](std::uint8_t channel) { return channel * alpha + background * (1 - alpha); };
  return luminance(over(pixel.red), over(pixel.green), over(pixel.blue));
}

/// Contrast ratio of two luminances.
double contrast(double one, double other) {
  return (std::max(one, other) + 0.05) / (std::min(one, other) + 0.05);
}

/// Share of the silhouette whose contrast ratio with a background of that grey is at least 3, the least that the
/// accessibility guidelines ask of a graphical object; https://www.w3.org/TR/WCAG21/#non-text-contrast
/// `opacity`: 0 to 1, with which the picture is painted.
double visibleShare(const Picture& picture, double background, double opacity = 1) {
  const double behind = luminance(background, background, background);
  int solid = 0;
  int visible = 0;
  for (const auto& pixel : picture.pixels) {
    solid += pixel.solid();
    visible += pixel.solid() && contrast(luminanceOver(pixel, background, opacity), behind) >= 3;
  }
  return solid == 0 ? 0 : static_cast<double>(visible) / solid;
}

/// Mean contrast ratio, soft edges included, of the shape that is seen on a background of that grey: the pixels whose
/// luminance is at least half as far from the background's as that of any. tests/desktop/contrast.py measures the same
/// on a screen.
double shapeContrast(const Picture& picture, double background, double opacity) {
  const double behind = luminance(background, background, background);
  std::vector<double> drawn;
  for (const auto& pixel : picture.pixels) drawn.push_back(luminanceOver(pixel, background, opacity));
  double furthest = 0;
  for (const double seen : drawn) furthest = std::max(furthest, std::abs(seen - behind));
  double sum = 0;
  int count = 0;
  for (const double seen : drawn) {
    if (std::abs(seen - behind) < furthest / 2) continue;
    sum += contrast(seen, behind);
    ++count;
  }
  return sum / count;
}

/// Share of the pixels covered by either silhouette that only one of them covers: 0 for equal shapes, 1 for disjoint.
double silhouetteDifference(const Picture& one, const Picture& other) {
  int either = 0;
  int onlyOne = 0;
  for (std::size_t i = 0; i < one.pixels.size(); ++i) {
    either += one.pixels[i].solid() || other.pixels[i].solid();
    onlyOne += one.pixels[i].solid() != other.pixels[i].solid();
  }
  return either == 0 ? 0 : static_cast<double>(onlyOne) / either;
}

using Document = std::unique_ptr<xmlDoc, decltype(&xmlFreeDoc)>;

Document parse(const fs::path& file) {
  return {xmlReadFile(file.c_str(), nullptr, XML_PARSE_NONET | XML_PARSE_PEDANTIC), &xmlFreeDoc};
}

std::string text(const xmlChar* value) {
  return value == nullptr ? std::string() : reinterpret_cast<const char*>(value);
}

/// Fails for anything in the tree below `node` that is not plain drawing, or points outside the file.
void expectSelfContained(const xmlNode* node) {
  for (; node != nullptr; node = node->next) {
    if (node->type == XML_TEXT_NODE) continue;
    ASSERT_EQ(node->type, XML_ELEMENT_NODE) << "line " << xmlGetLineNo(node);
    const std::string name = text(node->name);
    ASSERT_NE(node->ns, nullptr) << name;
    EXPECT_EQ(text(node->ns->href), "http://www.w3.org/2000/svg") << name;
    EXPECT_EQ(node->nsDef == nullptr ? nullptr : node->nsDef->next, nullptr) << name << " declares further namespaces";
    EXPECT_THAT(name, testing::AnyOf("svg", "title", "g", "path", "circle", "rect"));
    for (const xmlAttr* attribute = node->properties; attribute != nullptr; attribute = attribute->next) {
      const std::unique_ptr<xmlChar, void (*)(void*)> value(xmlNodeGetContent(attribute->children), xmlFree);
      EXPECT_NE(text(attribute->name), "href");
      EXPECT_NE(text(attribute->name), "style");
      EXPECT_EQ(attribute->ns, nullptr) << text(attribute->name) << " is not an attribute of SVG";
      EXPECT_THAT(text(value.get()), testing::Not(testing::AnyOf(testing::HasSubstr("url("), testing::HasSubstr(":"))));
    }
    expectSelfContained(node->children);
  }
}

TEST(Resources, EveryImageHasEverySizeWithExactlyThatManyPixelsAndFillsItsCanvas) {
  for (const int size : SIZES) {
    for (const auto* name : NAMES) {
      SCOPED_TRACE(pngFile(size, name));
      const auto picture = decode(pngFile(size, name));
      EXPECT_EQ(picture.width, size);
      EXPECT_EQ(picture.height, size);
      int left = size, top = size, right = 0, bottom = 0;
      for (int y = 0; y < picture.height; ++y) {
        for (int x = 0; x < picture.width; ++x) {
          if (!picture.at(x, y).solid()) continue;
          left = std::min(left, x);
          right = std::max(right, x + 1);
          top = std::min(top, y);
          bottom = std::max(bottom, y + 1);
        }
      }
      // At most one sixteenth of padding on each side, on average.
      EXPECT_GE(16 * (right - left), 14 * size);
      EXPECT_GE(16 * (bottom - top), 14 * size);
    }
  }
}

TEST(Resources, BadgesDifferInShapeAtTheSmallestSize) {
  for (std::size_t i = 0; i < EMBLEMS.size(); ++i) {
    for (std::size_t j = i + 1; j < EMBLEMS.size(); ++j) {
      const auto one = decode(pngFile(16, EMBLEMS[i].first));
      const auto other = decode(pngFile(16, EMBLEMS[j].first));
      ASSERT_EQ(one.pixels.size(), other.pixels.size());
      EXPECT_GE(silhouetteDifference(one, other), 0.2) << EMBLEMS[i].first << " and " << EMBLEMS[j].first;
    }
  }
}

TEST(Resources, ImagesStandOutOnLightGreyAndDarkBackgrounds) {
  for (const auto* name : NAMES) {
    const auto picture = decode(pngFile(16, name));
    for (const double ground : {255, 128, 0}) EXPECT_GE(visibleShare(picture, ground), 0.2) << name << " on " << ground;
  }
}

// Nautilus 48 and later paint emblems so.
TEST(Resources, EmblemsStandOutAtFiftyFivePercentOnLightAndDarkThemes) {
  for (const auto& [name, emblem] : EMBLEMS) {
    for (const int size : {16, 32}) {
      const auto picture = decode(pngFile(size, name));
      for (const double ground : {255, 250, 36, 30}) {
        EXPECT_GE(visibleShare(picture, ground, 0.55), 0.2) << name << " of " << size << " on " << ground;
        EXPECT_GE(shapeContrast(picture, ground, 0.55), 3) << name << " of " << size << " on " << ground;
      }
    }
  }
}

TEST(Resources, DrawingsAreWellFormedAndSelfContained) {
  for (const auto* name : NAMES) {
    SCOPED_TRACE(svgFile(name));
    const Document document = parse(svgFile(name));
    ASSERT_NE(document, nullptr) << "not well-formed";
    EXPECT_EQ(document->intSubset, nullptr) << "has a document type";
    const xmlNode* root = xmlDocGetRootElement(document.get());
    EXPECT_EQ(text(root->name), "svg");
    // From the document's first child: processing instructions and comments may be beside the root element.
    expectSelfContained(document->children);
  }
}

/// Expects the image `name`, at every size, as `icon` in the theme's folders for icons of that `kind`.
void expectInTheme(const std::string& name, const std::string& kind, const std::string& icon) {
  const std::string drawing = contents(HICOLOR / "scalable" / kind / (icon + ".svg"));
  EXPECT_FALSE(drawing.empty()) << icon;
  EXPECT_EQ(drawing, contents(svgFile(name))) << icon;
  for (const int size : SIZES) {
    const std::string folder = std::to_string(size) + "x" + std::to_string(size);
    const std::string pixels = contents(HICOLOR / folder / kind / (icon + ".png"));
    EXPECT_FALSE(pixels.empty()) << icon << " " << size;
    EXPECT_EQ(pixels, contents(pngFile(size, name))) << icon << " " << size;
  }
}

TEST(Resources, EmblemsAreTheBadgesUnderTheirThemeNames) {
  for (const auto& [name, emblem] : EMBLEMS) expectInTheme(name, "emblems", emblem);
}

TEST(Resources, TheProductImageIsAnIconOfTheTheme) {
  expectInTheme("QMT", "apps", "vornet-vi");
}

}  // namespace
