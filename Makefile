# Thin front end over CMake. `make demo` and `make test` are the two set-up commands.
BUILD_DIR ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: deps configure build demo test bench install clean

deps:
	scripts/install-deps

configure:
	cmake -S . -B $(BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=Release $(CMAKE_FLAGS)

build: configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

# Installs dependencies, builds, and runs the main job on the built-in demo song: writes it, reads
# it back, draws its spectra, exports it at half speed and plays it where a sound device answers.
demo: deps build
	scripts/run-demo $(BUILD_DIR)

# Installs dependencies, builds, and runs every test suite.
test: deps build
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS)

bench: deps build
	bench/run $(BUILD_DIR)

install: build
	cmake --install $(BUILD_DIR)

clean:
	rm -rf $(BUILD_DIR)
