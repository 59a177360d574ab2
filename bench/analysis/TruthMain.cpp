// Writes the known-truth evaluation songs: NAME.wav and NAME.truth.json for each, into a
// directory (analysis_truth DIR [NAME-SUBSTRING]).
#include "KnownTruthSong.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: analysis_truth DIR [NAME-SUBSTRING]\n");
        return 2;
    }
    const auto soundFont = vell::bench::findSoundFont();
    if (!soundFont) {
        std::fprintf(stderr, "analysis_truth: no GM SoundFont (install timgm6mb-soundfont)\n");
        return 1;
    }
    const std::filesystem::path directory = argv[1];
    std::filesystem::create_directories(directory);
    const std::string filter = argc > 2 ? argv[2] : "";
    for (const auto& recipe : vell::bench::evaluationSet()) {
        if (!filter.empty() && recipe.name.find(filter) == std::string::npos) {
            continue;
        }
        const auto song = vell::bench::renderSong(recipe, *soundFont);
        if (song.left.empty()) {
            std::fprintf(stderr, "analysis_truth: cannot render %s\n", recipe.name.c_str());
            return 1;
        }
        const std::string base = (directory / recipe.name).string();
        if (!vell::bench::writeWave(base + ".wav", song)) {
            std::fprintf(stderr, "analysis_truth: cannot write %s.wav\n", base.c_str());
            return 1;
        }
        std::ofstream(base + ".truth.json") << vell::bench::truthJson(song.truth).dump(1) << "\n";
        std::printf("%s %.1f s\n", recipe.name.c_str(), song.truth.duration);
    }
    return 0;
}
