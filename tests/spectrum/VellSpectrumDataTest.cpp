// Spectrum data: raw and reduced copies, decibel hand-out, paths and drawing into Cairo.
#include "VellAudio/VellSpectrumData.h"
#include "VellAudio/VellSpectrumImage.h"

#include <gtest/gtest.h>

#include <cairo.h>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>
#include <memory>
#include <numeric>
#include <vector>

using namespace vell;

namespace {

constexpr std::uint32_t kLength = 1024;

std::vector<float> ramp(std::uint32_t n, float start = 0.0f)
{
    std::vector<float> v(n);
    std::iota(v.begin(), v.end(), start);
    return v;
}

} // namespace

TEST(VellSpectrumDataTest, ConstructionSizesEverythingFromLengthAndRate)
{
    VellSpectrumData data(kLength, 44100);
    EXPECT_EQ(data.smoothedLength(), 134u);
    EXPECT_EQ(data.lowerBandCount(), 80u);
    EXPECT_EQ(data.upperBandCount(), 54u);
    EXPECT_EQ(data.panAmount(), 0.5);
    EXPECT_EQ(data.smoothedFrequencyTable()[79], 1000.0f);
    for (std::uint32_t i = 0; i < kLength; ++i) {
        ASSERT_EQ(data.leftData()[i], 0.0f);
    }
}

TEST(VellSpectrumDataTest, SettersReadTheFullLengthAndReduce)
{
    VellSpectrumData data(kLength, 44100);
    const auto left = ramp(kLength);
    const auto right = ramp(kLength, 1.0f);
    data.setLeftSpectrum(left.data(), 3); // the count is ignored
    data.setRightSpectrum(right.data(), 0);

    std::vector<float> out(kLength);
    data.getLeftSpectrum(out.data(), 1);
    EXPECT_EQ(out, left);
    data.getMixedSpectrum(out.data(), 1);
    EXPECT_EQ(out[10], 10.5f);
    EXPECT_EQ(out[kLength - 1], kLength - 0.5f);

    std::vector<float> reducedLeft(134);
    std::vector<float> reducedRight(134);
    data.getSmoothedLeftSpectrum(reducedLeft.data(), 0);
    data.getSmoothedRightSpectrum(reducedRight.data(), 0);
    EXPECT_EQ(reducedLeft.back(), float(kLength - 1));
    EXPECT_EQ(reducedRight.back(), float(kLength));

    // Stride and count are the caller's.
    std::vector<float> strided(10, -1.0f);
    data.getSmoothedMixedSpectrum(strided.data(), 2, 5);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(strided[2 * i], (reducedLeft[i] + reducedRight[i]) * 0.5f);
        EXPECT_EQ(strided[2 * i + 1], -1.0f);
    }
}

TEST(VellSpectrumDataTest, SmoothedSpectrumIsInDecibelsAndPassesTheCountThrough)
{
    VellSpectrumData data(kLength, 48000);
    // The producer writes into the raw buffers directly.
    std::fill_n(data.leftData(), kLength, 10.0f);
    std::fill_n(data.rightData(), kLength, 0.0f);

    int calls = 0;
    data.getSmoothedSpectrum(7, [&](const float* left, const float* right, std::uint32_t count) {
        ++calls;
        EXPECT_EQ(count, 7u);
        for (std::uint32_t i = 0; i < 136; ++i) {
            ASSERT_FLOAT_EQ(left[i], 20.0f);
            ASSERT_EQ(right[i], -std::numeric_limits<float>::infinity());
        }
    });
    EXPECT_EQ(calls, 1);
}

TEST(VellSpectrumDataTest, PathClampsToTheMinimumAndAppliesTheTransform)
{
    const float values[] = {-std::numeric_limits<float>::infinity(), 0.0f, -200.0f, NAN, 10.0f};
    const auto transform = AffineTransform::identity().scaled(2.0, 0.5).translated(0, 30);
    const SpectrumPath path = VellSpectrumData::createPath(values, 5, transform, -120.0f);
    ASSERT_EQ(path.points.size(), 5u);
    EXPECT_EQ(path.points[0], (AffineTransform::Point{0, (-120 + 30) * 0.5}));
    EXPECT_EQ(path.points[1], (AffineTransform::Point{2, 15}));
    EXPECT_EQ(path.points[2], (AffineTransform::Point{4, -45}));
    EXPECT_EQ(path.points[3], (AffineTransform::Point{6, -45}));
    EXPECT_EQ(path.points[4], (AffineTransform::Point{8, 20}));

    EXPECT_EQ(VellSpectrumData::createPath(values, 1, transform, -120.0f).points.size(), 1u);
}

namespace {

/// An ARGB image surface and its context.
struct Canvas {
    Canvas(int w, int h)
        : surface(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, w, h)),
          context(cairo_create(surface)), width(w), height(h)
    {
        cairo_set_line_width(context, 2.0);
        cairo_set_antialias(context, CAIRO_ANTIALIAS_NONE);
    }
    ~Canvas()
    {
        cairo_destroy(context);
        cairo_surface_destroy(surface);
    }

    std::uint32_t pixel(int x, int y)
    {
        cairo_surface_flush(surface);
        const auto* row = cairo_image_surface_get_data(surface) +
                          y * cairo_image_surface_get_stride(surface);
        return reinterpret_cast<const std::uint32_t*>(row)[x];
    }

    /// Rows in column x whose pixel equals colour.
    std::vector<int> rowsWithColour(int x, std::uint32_t colour)
    {
        std::vector<int> rows;
        for (int y = 0; y < height; ++y) {
            if (pixel(x, y) == colour) {
                rows.push_back(y);
            }
        }
        return rows;
    }

    cairo_surface_t* surface;
    cairo_t* context;
    int width;
    int height;
};

constexpr std::uint32_t kRed = 0xFFFF0000;
constexpr std::uint32_t kBlue = 0xFF0000FF;
constexpr std::uint32_t kWhite = 0xFFFFFFFF;
const Color kRedColour{1, 0, 0, 1};
const Color kBlueColour{0, 0, 1, 1};
const Color kWhiteColour{1, 1, 1, 1};
const Color kClear{0, 0, 0, 0};

} // namespace

TEST(VellSpectrumDataTest, MixedDrawingPlacesZeroDecibelsOnTheDesignedRow)
{
    VellSpectrumData data(kLength, 44100);
    std::fill_n(data.leftData(), kLength, 1.0f); // 0 dB
    std::fill_n(data.rightData(), kLength, 1.0f);

    // Flipped (top-down, as Cairo is): +30 dB on the top edge, -50 dB on the bottom, so 0 dB
    // lies 30/80 of the way down.
    Canvas canvas(268, 160);
    data.drawMixedSpectrum(canvas.context, 268, 160, kRedColour, kWhiteColour, true);
    const auto rows = canvas.rowsWithColour(100, kRed);
    ASSERT_FALSE(rows.empty());
    EXPECT_NEAR(rows.front(), 60, 1);
    EXPECT_EQ(canvas.pixel(100, 10), kWhite);

    // Upright in a top-down surface: 0 dB lies 30/80 of the height from the origin row.
    Canvas upright(268, 160);
    data.drawMixedSpectrum(upright.context, 268, 160, kRedColour, kWhiteColour, false);
    EXPECT_NEAR(upright.rowsWithColour(100, kRed).front(), 60, 1);
}

TEST(VellSpectrumDataTest, SilenceDrawsNothingVisibleAndClearBackgroundKeepsThePicture)
{
    VellSpectrumData data(kLength, 44100);
    Canvas canvas(134, 100);
    cairo_set_source_rgb(canvas.context, 0, 0, 1);
    cairo_paint(canvas.context);

    // Silence is -120 dB: outside the visible range either way up.
    data.drawMixedSpectrum(canvas.context, 134, 100, kRedColour, kClear, true);
    data.drawMixedSpectrum(canvas.context, 134, 100, kRedColour, kClear, false);
    for (int x = 0; x < 134; x += 7) {
        EXPECT_TRUE(canvas.rowsWithColour(x, kRed).empty()) << x;
        EXPECT_EQ(canvas.pixel(x, 50), kBlue);
    }
}

TEST(VellSpectrumDataTest, StereoDrawingOffsetsTheQuieterSideByPan)
{
    VellSpectrumData data(kLength, 44100);
    std::fill_n(data.leftData(), kLength, 1.0f);  // 0 dB
    std::fill_n(data.rightData(), kLength, 1.0f); // 0 dB

    // Upright with gain 1: y = (0 + 40) * h / 80, i.e. half the height from the origin row.
    Canvas centred(268, 160);
    data.drawSpectrum(centred.context, 268, 160, kRedColour, kBlueColour, kWhiteColour, 0.5,
                      false);
    // The right curve is drawn last, over the left one.
    EXPECT_NEAR(centred.rowsWithColour(50, kBlue).front(), 80, 1);

    // Pan 0: the left keeps gain 1, the right falls to 0 and moves to (0 - 40) * h / 80,
    // off the surface.
    Canvas panned(268, 160);
    data.drawSpectrum(panned.context, 268, 160, kRedColour, kBlueColour, kWhiteColour, 0.0,
                      false);
    EXPECT_NEAR(panned.rowsWithColour(50, kRed).front(), 80, 1);
    EXPECT_TRUE(panned.rowsWithColour(50, kBlue).empty());
}

TEST(VellSpectrumImageTest, WritesPngAndSvgAndRefusesOtherNames)
{
    VellSpectrumData data(kLength, 44100);
    std::fill_n(data.leftData(), kLength, 1.0f);
    const auto dir = std::filesystem::temp_directory_path() / "vell-spectrum-image-test";
    std::filesystem::create_directories(dir);

    SpectrumImageOptions options;
    options.width = 320;
    options.height = 120;
    options.caption = "test";
    Error error;
    ASSERT_TRUE(writeSpectrumImage(data, dir / "s.png", options, &error)) << error.description();
    cairo_surface_t* png = cairo_image_surface_create_from_png((dir / "s.png").c_str());
    EXPECT_EQ(cairo_surface_status(png), CAIRO_STATUS_SUCCESS);
    EXPECT_EQ(cairo_image_surface_get_width(png), 320);
    EXPECT_EQ(cairo_image_surface_get_height(png), 120);
    cairo_surface_destroy(png);

    options.stereo = true;
    ASSERT_TRUE(writeSpectrumImage(data, dir / "s.SVG", options, &error));
    EXPECT_GT(std::filesystem::file_size(dir / "s.SVG"), 1000u);

    EXPECT_FALSE(writeSpectrumImage(data, dir / "s.jpg", options, &error));
    EXPECT_EQ(error.domain(), kVellErrorDomain);
    EXPECT_NE(error.localizedFailureReason()->find(".png or .svg"), std::string::npos);
    EXPECT_FALSE(writeSpectrumImage(data, dir / "missing-dir" / "s.png", options, &error));
    EXPECT_EQ(*error.localizedFailureReason(), std::strerror(ENOENT));
    options.width = 0;
    EXPECT_FALSE(writeSpectrumImage(data, dir / "t.png", options, &error));
    EXPECT_FALSE(std::filesystem::exists(dir / "t.png"));
    options.width = 320;
    if (std::filesystem::exists("/dev/full")) {
        // A device that is full: the write fails part of the way and leaves no file behind.
        std::filesystem::create_symlink("/dev/full", dir / "full.png");
        EXPECT_FALSE(writeSpectrumImage(data, dir / "full.png", options, &error));
        EXPECT_FALSE(std::filesystem::is_symlink(dir / "full.png"));
    }
    std::filesystem::remove_all(dir);
}
