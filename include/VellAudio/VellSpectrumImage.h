// Writes a spectrum picture (PNG or SVG) with a frequency and level grid.
#pragma once

#include "VellAudio/Error.h"
#include "VellAudio/VellSpectrumData.h"

#include <filesystem>

namespace vell {

struct SpectrumImageOptions {
    int width = 1200;
    int height = 400;
    /// Left and right curves instead of one mixed curve.
    bool stereo = false;
    /// Left/right balance for the stereo drawing (0 left ... 1 right).
    double pan = 0.5;
    /// A caption drawn in the top-left corner (file name, time); empty for none.
    std::string caption;
};

/// Whether path names a picture writeSpectrumImage can write (.png or .svg, any case).
bool isSpectrumImagePath(const std::filesystem::path& path);

/// Draws data's current spectrum over a dark background with grid lines at octaves of 1 kHz and
/// every 10 dB, and writes it as PNG or SVG by the path's extension. Fails with a user error
/// for another extension or when the file cannot be written (and then leaves no file behind).
bool writeSpectrumImage(const VellSpectrumData& data, const std::filesystem::path& path,
                        const SpectrumImageOptions& options, Error* outError = nullptr);

} // namespace vell
