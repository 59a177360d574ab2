// Spectrum drawing with Cairo: one mixed curve, or left and right curves offset by pan.
#include "VellAudio/VellSpectrumData.h"

#include "VellAudio/KFractionalOctaveSmoothing.h"

#include <algorithm>
#include <cairo.h>
#include <cmath>

namespace vell {

AffineTransform AffineTransform::scaled(double sx, double sy) const
{
    AffineTransform t = *this;
    t.a *= sx;
    t.b *= sx;
    t.c *= sy;
    t.d *= sy;
    return t;
}

AffineTransform AffineTransform::translated(double dx, double dy) const
{
    AffineTransform t = *this;
    t.tx = a * dx + c * dy + tx;
    t.ty = b * dx + d * dy + ty;
    return t;
}

void SpectrumPath::addTo(cairo_t* context) const
{
    if (points.empty()) {
        return;
    }
    cairo_move_to(context, points.front().x, points.front().y);
    for (std::size_t i = 1; i < points.size(); ++i) {
        cairo_line_to(context, points[i].x, points[i].y);
    }
}

SpectrumPath VellSpectrumData::createPath(const float* values, std::uint32_t count,
                                          const AffineTransform& transform, float minimumValue)
{
    SpectrumPath path;
    if (!values || count == 0) {
        return path;
    }
    path.points.reserve(count);
    for (std::uint32_t i = 0; i < count; ++i) {
        // Minus infinity and NaN (which compares false) both become the minimum.
        const float y = std::max(minimumValue, values[i]);
        path.points.push_back(transform.apply({static_cast<double>(i), static_cast<double>(y)}));
    }
    return path;
}

namespace {

void fillBackground(cairo_t* context, double width, double height, Color background)
{
    if (background.alpha > 0) {
        cairo_save(context);
        cairo_set_source_rgba(context, background.red, background.green, background.blue,
                              background.alpha);
        cairo_rectangle(context, 0, 0, width, height);
        cairo_fill(context);
        cairo_restore(context);
    }
}

} // namespace

void VellSpectrumData::strokeCurve(cairo_t* context, const float* raw,
                                   std::vector<float>& scratch, const AffineTransform& transform,
                                   Color colour) const
{
    std::fill(scratch.begin(), scratch.end(), 0.0f);
    KFractionalOctaveSmoothingGetSmoothedData(static_cast<float>(mSampleRate), raw, mLength,
                                              scratch.data(), mSmoothedLength,
                                              static_cast<float>(mSmoothingFraction));
    for (float& v : scratch) {
        v = 20.0f * std::log10(v / 1.0f);
    }
    const SpectrumPath path =
        createPath(scratch.data(), mSmoothedLength, transform, kMinimumDrawnValue);
    cairo_new_path(context);
    path.addTo(context);
    cairo_set_source_rgba(context, colour.red, colour.green, colour.blue, colour.alpha);
    cairo_stroke(context);
}

void VellSpectrumData::drawMixedSpectrum(cairo_t* context, double width, double height,
                                         Color foreground, Color background, bool flipped) const
{
    if (!context || mSmoothedLength == 0) {
        return;
    }
    fillBackground(context, width, height, background);
    std::vector<float> scratch(mSmoothedLength, 0.0f);
    std::vector<float> mixed(mLength, 0.0f);
    getMixedSpectrum(mixed.data(), mLength);

    // Deliberate: the two orientations show different ranges (-30...+50 dB upright,
    // +30...-50 dB flipped).
    const double scale = flipped ? -80.0 : 80.0;
    const double offset = flipped ? -30.0 : 30.0;
    const AffineTransform transform = AffineTransform::identity()
                                          .scaled(width / mSmoothedLength, height / scale)
                                          .translated(0, offset);
    strokeCurve(context, mixed.data(), scratch, transform, foreground);
}

void VellSpectrumData::drawSpectrum(cairo_t* context, double width, double height,
                                    Color foregroundLeft, Color foregroundRight, Color background,
                                    double panAmount, bool flipped) const
{
    if (!context || mSmoothedLength == 0) {
        return;
    }
    fillBackground(context, width, height, background);
    std::vector<float> scratch(mSmoothedLength, 0.0f);

    const double scale = flipped ? -80.0 : 80.0;
    auto transformForGain = [&](double gain) {
        // Deliberate: the flipped form keeps the positive sign of the pan offset.
        const double offset = flipped ? 40.0 + (1.0 - gain) * 80.0 : 40.0 - (1.0 - gain) * 80.0;
        return AffineTransform::identity()
            .scaled(width / mSmoothedLength, height / scale)
            .translated(0, offset);
    };
    const double leftGain = std::min(1.0, 2.0 * (1.0 - panAmount));
    const double rightGain = std::min(1.0, 2.0 * panAmount);
    strokeCurve(context, mLeft.data(), scratch, transformForGain(leftGain), foregroundLeft);
    strokeCurve(context, mRight.data(), scratch, transformForGain(rightGain), foregroundRight);
}

} // namespace vell
