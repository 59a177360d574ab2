# Finds the system packages the engine links against. Everything comes from Debian packages.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(nlohmann_json 3.10 REQUIRED)
# The command line of the vell tool (header-only).
find_package(CLI11 2.1 REQUIRED)

pkg_check_modules(SIGCXX REQUIRED IMPORTED_TARGET sigc++-3.0)
pkg_check_modules(FFMPEG REQUIRED IMPORTED_TARGET libavformat libavcodec libswresample libavutil)
pkg_check_modules(FLUIDSYNTH REQUIRED IMPORTED_TARGET fluidsynth)
pkg_check_modules(RUBBERBAND REQUIRED IMPORTED_TARGET rubberband)
pkg_check_modules(FFTW REQUIRED IMPORTED_TARGET fftw3f)
pkg_check_modules(CAIRO REQUIRED IMPORTED_TARGET cairo)
pkg_check_modules(PORTAUDIO REQUIRED IMPORTED_TARGET portaudio-2.0)
pkg_check_modules(ALSA REQUIRED IMPORTED_TARGET alsa)
pkg_check_modules(PULSE REQUIRED IMPORTED_TARGET libpulse)
pkg_check_modules(SAMPLERATE REQUIRED IMPORTED_TARGET samplerate)

find_path(ASIO_INCLUDE_DIR asio.hpp REQUIRED)
find_path(STB_INCLUDE_DIR stb/stb_image.h REQUIRED)

if(VELL_BUILD_TESTS)
    find_package(GTest REQUIRED)
endif()
if(VELL_BUILD_BENCH)
    find_package(benchmark REQUIRED)
endif()
