// Two-channel magnitude spectrum with its twelfth-octave reduction, and its drawing.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

typedef struct _cairo cairo_t;

namespace vell {

/// A 2-D affine transform: (x, y) maps to (a x + c y + tx, b x + d y + ty).
struct AffineTransform {
    double a = 1, b = 0, c = 0, d = 1, tx = 0, ty = 0;

    static AffineTransform identity() { return {}; }
    /// Scales in the transform's own space: applied before the existing transform.
    AffineTransform scaled(double sx, double sy) const;
    /// Translates in the transform's own space: applied before the existing transform.
    AffineTransform translated(double dx, double dy) const;

    struct Point {
        double x = 0, y = 0;
        friend bool operator==(const Point&, const Point&) = default;
    };
    Point apply(Point p) const { return {a * p.x + c * p.y + tx, b * p.x + d * p.y + ty}; }
};

/// A polyline path: a start point and lines to the following points, in device space.
struct SpectrumPath {
    std::vector<AffineTransform::Point> points;

    /// Adds the path to a Cairo context's current path (move to the first, lines to the rest).
    void addTo(cairo_t* context) const;
};

/// An RGBA colour, components 0...1.
struct Color {
    double red = 0, green = 0, blue = 0, alpha = 1;
};

/// The most recent two-channel magnitude spectrum and its 1/12-octave reduction for display.
/// Raw bins span 0 Hz to Nyquist; values are linear magnitudes. Lengths are fixed for the life
/// of an instance.
///
/// Thread safety: none of its own. The producer fills the raw data on the main thread and the
/// display side reduces and draws on the main thread; a reader elsewhere may see a half-written
/// spectrum.
class VellSpectrumData {
public:
    /// Minimum value of drawn curves, in dB.
    static constexpr float kMinimumDrawnValue = -120.0f;

    VellSpectrumData(std::uint32_t length, std::uint32_t sampleRate);

    std::uint32_t length() const noexcept { return mLength; }
    std::uint32_t sampleRate() const noexcept { return mSampleRate; }
    std::uint32_t smoothedLength() const noexcept { return mSmoothedLength; }
    std::uint32_t upperBandCount() const noexcept { return mPosCount; }
    std::uint32_t lowerBandCount() const noexcept { return mNegCount; }
    double panAmount() const noexcept { return mPanAmount; }
    void setPanAmount(double panAmount) noexcept { mPanAmount = panAmount; }

    /// Stable pointers for the producer; `length()` floats each.
    float* leftData() noexcept { return mLeft.data(); }
    float* rightData() noexcept { return mRight.data(); }
    const float* smoothedLeftData() const noexcept { return mSmoothedLeft.data(); }
    const float* smoothedRightData() const noexcept { return mSmoothedRight.data(); }
    /// Band centres in Hz, ascending, `smoothedLength()` values.
    const float* smoothedFrequencyTable() const noexcept { return mSmoothedFrequencyTable.data(); }

    // Deliberate: the count arguments below are ignored; `length()` (or `smoothedLength()`)
    // values are always read or written, so callers must supply at least that many.
    void setLeftSpectrum(const float* values, std::uint32_t count);
    void setRightSpectrum(const float* values, std::uint32_t count);
    void getLeftSpectrum(float* out, std::uint32_t count) const;
    void getRightSpectrum(float* out, std::uint32_t count) const;
    /// (left + right) * 0.5 per bin.
    void getMixedSpectrum(float* out, std::uint32_t count) const;
    void getSmoothedLeftSpectrum(float* out, std::uint32_t count) const;
    void getSmoothedRightSpectrum(float* out, std::uint32_t count) const;

    /// Writes count values, out[i * stride] = (smoothedLeft[i] + smoothedRight[i]) * 0.5.
    void getSmoothedMixedSpectrum(float* out, std::uint32_t stride, std::uint32_t count) const;

    /// Reduces both channels from the raw data, converts them to amplitude decibels in place,
    /// and calls block once with (left, right, count), count passed through unchanged. The
    /// block must not keep the pointers.
    void getSmoothedSpectrum(std::uint32_t count,
                             const std::function<void(const float* left, const float* right,
                                                      std::uint32_t count)>& block);

    /// A path through (i, max(minimum, values[i])), every point mapped through transform.
    static SpectrumPath createPath(const float* values, std::uint32_t count,
                                   const AffineTransform& transform, float minimumValue);

    /// Draws the mixed (mono) spectrum as one curve over w x h. Not flipped, -30 dB lies on the
    /// bottom edge and +50 dB on the top; flipped (a top-down context), +30 dB at the top and
    /// -50 dB at the bottom. A background with alpha 0 clears nothing.
    void drawMixedSpectrum(cairo_t* context, double width, double height, Color foreground,
                           Color background, bool flipped) const;

    /// Draws the left and then the right curve; pan p pushes the quieter side away by up to
    /// 80 dB-units (left gain min(1, 2(1 - p)), right gain min(1, 2p)). The stored pan is not
    /// consulted.
    void drawSpectrum(cairo_t* context, double width, double height, Color foregroundLeft,
                      Color foregroundRight, Color background, double panAmount,
                      bool flipped) const;

private:
    void reduce(const std::vector<float>& raw, std::vector<float>& reduced) const;
    void strokeCurve(cairo_t* context, const float* raw, std::vector<float>& scratch,
                     const AffineTransform& transform, Color colour) const;

    std::uint32_t mLength = 0;
    std::uint32_t mSampleRate = 0;
    std::uint32_t mSmoothedLength = 0;
    std::uint32_t mPosCount = 0;
    std::uint32_t mNegCount = 0;
    double mSmoothingFraction = 1.0 / 12.0;
    double mPanAmount = 0.5;
    bool mDecibelConversion = true;
    std::vector<float> mLeft;
    std::vector<float> mRight;
    std::vector<float> mSmoothedFrequencyTable;
    std::vector<float> mSmoothedLeft;
    std::vector<float> mSmoothedRight;
};

} // namespace vell
