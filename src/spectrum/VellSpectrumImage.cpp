// Spectrum pictures: a grid, labels and the curves of VellSpectrumData, to PNG or SVG.
#include "VellAudio/VellSpectrumImage.h"

#include "support/Format.h"

#include <algorithm>
#include <cairo-svg.h>
#include <cairo.h>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>

namespace vell {
namespace {

struct SurfaceDeleter {
    void operator()(cairo_surface_t* s) const { cairo_surface_destroy(s); }
};
struct ContextDeleter {
    void operator()(cairo_t* c) const { cairo_destroy(c); }
};
using SurfacePtr = std::unique_ptr<cairo_surface_t, SurfaceDeleter>;
using ContextPtr = std::unique_ptr<cairo_t, ContextDeleter>;

const Color kBackground{0.08, 0.09, 0.11, 1};
const Color kGrid{0.25, 0.27, 0.31, 1};
const Color kLabel{0.62, 0.65, 0.70, 1};
const Color kMixed{0.35, 0.80, 1.00, 1};
const Color kLeft{1.00, 0.55, 0.25, 1};
const Color kRight{0.35, 0.80, 1.00, 1};

void setColour(cairo_t* cr, Color c)
{
    cairo_set_source_rgba(cr, c.red, c.green, c.blue, c.alpha);
}

/// The x position of frequency f: bands are twelfths of an octave and band 0 lies
/// (lowerBandCount - 1) bands below 1000 Hz.
double xForFrequency(const VellSpectrumData& data, double frequency, double width)
{
    const double band = (data.lowerBandCount() - 1) + 12.0 * std::log2(frequency / 1000.0);
    return band * width / data.smoothedLength();
}

void drawGrid(cairo_t* cr, const VellSpectrumData& data, const SpectrumImageOptions& options)
{
    const double w = options.width;
    const double h = options.height;
    cairo_set_line_width(cr, 1.0);
    cairo_select_font_face(cr, "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_font_size(cr, std::clamp(h / 32.0, 9.0, 14.0));

    const double frequencies[] = {20, 50, 100, 200, 500, 1000, 2000, 5000, 10000, 20000};
    for (double f : frequencies) {
        if (f >= data.sampleRate() * 0.5) {
            break;
        }
        const double x = std::round(xForFrequency(data, f, w)) + 0.5;
        setColour(cr, kGrid);
        cairo_move_to(cr, x, 0);
        cairo_line_to(cr, x, h);
        cairo_stroke(cr);
        setColour(cr, kLabel);
        cairo_move_to(cr, x + 3, h - 4);
        const std::string label = f >= 1000 ? format("%gk", f / 1000) : format("%g", f);
        cairo_show_text(cr, label.c_str());
    }

    // Level lines: where a curve at gain 1 puts each level (upright drawing, top-down surface).
    // Mixed: (dB + 30) * h / 80 above the bottom edge; stereo: (dB + 40) * h / 80.
    const double offset = options.stereo ? 40.0 : 30.0;
    for (int db = -60; db <= 60; db += 10) {
        const double y = h - (db + offset) * h / 80.0;
        if (y < 2 || y > h - 2) {
            continue;
        }
        const double py = std::round(y) + 0.5;
        setColour(cr, kGrid);
        cairo_move_to(cr, 0, py);
        cairo_line_to(cr, w, py);
        cairo_stroke(cr);
        setColour(cr, kLabel);
        cairo_move_to(cr, 4, py - 3);
        cairo_show_text(cr, format("%d dB", db).c_str());
    }
}

void drawPicture(cairo_t* cr, const VellSpectrumData& data, const SpectrumImageOptions& options)
{
    const double w = options.width;
    const double h = options.height;
    setColour(cr, kBackground);
    cairo_paint(cr);
    drawGrid(cr, data, options);

    // The curves are drawn upright: flip the top-down surface.
    cairo_save(cr);
    cairo_translate(cr, 0, h);
    cairo_scale(cr, 1, -1);
    cairo_set_line_width(cr, std::max(1.0, h / 250.0));
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);
    const Color clear{0, 0, 0, 0};
    if (options.stereo) {
        data.drawSpectrum(cr, w, h, kLeft, kRight, clear, options.pan, false);
    } else {
        data.drawMixedSpectrum(cr, w, h, kMixed, clear, false);
    }
    cairo_restore(cr);

    if (!options.caption.empty()) {
        setColour(cr, kLabel);
        cairo_move_to(cr, 8, std::clamp(h / 32.0, 9.0, 14.0) + 6);
        cairo_show_text(cr, options.caption.c_str());
    }
    if (options.stereo) {
        const double y = 2 * std::clamp(h / 32.0, 9.0, 14.0) + 10;
        setColour(cr, kLeft);
        cairo_move_to(cr, 8, y);
        cairo_show_text(cr, "left");
        setColour(cr, kRight);
        cairo_move_to(cr, 48, y);
        cairo_show_text(cr, "right");
    }
}

std::string lowercaseExtension(const std::filesystem::path& path)
{
    std::string extension = path.extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return extension;
}

Error writeError(const char* why)
{
    return makeUserError("Could not write the spectrum picture", why);
}

struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};

cairo_status_t writeToFile(void* closure, const unsigned char* data, unsigned int length)
{
    return std::fwrite(data, 1, length, static_cast<std::FILE*>(closure)) == length
               ? CAIRO_STATUS_SUCCESS
               : CAIRO_STATUS_WRITE_ERROR;
}

/// Draws the picture into the open file; a failure is Cairo's description.
const char* drawInto(std::FILE* file, bool png, const VellSpectrumData& data,
                     const SpectrumImageOptions& options)
{
    if (png) {
        SurfacePtr surface(
            cairo_image_surface_create(CAIRO_FORMAT_RGB24, options.width, options.height));
        ContextPtr cr(cairo_create(surface.get()));
        drawPicture(cr.get(), data, options);
        cairo_surface_flush(surface.get());
        const cairo_status_t status =
            cairo_surface_write_to_png_stream(surface.get(), writeToFile, file);
        return status == CAIRO_STATUS_SUCCESS ? nullptr : cairo_status_to_string(status);
    }
    SurfacePtr surface(
        cairo_svg_surface_create_for_stream(writeToFile, file, options.width, options.height));
    ContextPtr cr(cairo_create(surface.get()));
    drawPicture(cr.get(), data, options);
    cr.reset();
    cairo_surface_finish(surface.get());
    const cairo_status_t status = cairo_surface_status(surface.get());
    return status == CAIRO_STATUS_SUCCESS ? nullptr : cairo_status_to_string(status);
}

} // namespace

bool isSpectrumImagePath(const std::filesystem::path& path)
{
    const std::string extension = lowercaseExtension(path);
    return extension == ".png" || extension == ".svg";
}

bool writeSpectrumImage(const VellSpectrumData& data, const std::filesystem::path& path,
                        const SpectrumImageOptions& options, Error* outError)
{
    if (options.width < 16 || options.height < 16 || options.width > 16384 ||
        options.height > 16384) {
        assignError(outError, writeError("the size must be between 16 and 16384 pixels"));
        return false;
    }
    if (!isSpectrumImagePath(path)) {
        assignError(outError, writeError("the picture's name must end in .png or .svg"));
        return false;
    }
    std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "wb"));
    if (!file) {
        assignError(outError, writeError(std::strerror(errno)));
        return false;
    }
    const bool png = lowercaseExtension(path) == ".png";
    const char* failure = drawInto(file.get(), png, data, options);
    const bool closed = std::fclose(file.release()) == 0;
    if (failure != nullptr || !closed) {
        std::error_code ignored;
        std::filesystem::remove(path, ignored); // no half-written picture is left behind
        assignError(outError, writeError(failure != nullptr ? failure : std::strerror(errno)));
        return false;
    }
    return true;
}

} // namespace vell
