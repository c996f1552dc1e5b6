# The front door: `make demo` builds and runs the demo agent, `make test`
# builds and runs every test. Both install missing Debian packages first.
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: deps configure build demo test clean

deps:
	@scripts/install-deps.sh

configure: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS)

build: configure
	cmake --build $(BUILD) -j $(JOBS)

# DEMO_ARGS="--port 16162 --log-level debug" passes options to the demo agent.
demo: configure
	cmake --build $(BUILD) -j $(JOBS) --target zelta_demo
	$(BUILD)/examples/zelta_demo $(DEMO_ARGS)

test: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

clean:
	rm -rf $(BUILD)

# 32-bit ARM: cross-build for arm-linux-gnueabihf into build-armhf/ and run every
# test under qemu-arm (installs the cross tools, makes and caches the sysroot).
.PHONY: test-armhf
test-armhf:
	JOBS=$(JOBS) scripts/armhf.sh

# Debian package (libzelta1_<version>_<arch>.deb) of the library, headers, CMake
# package and zelta.pc, made by CPack into $(BUILD)/; see cmake/ZeltaPackaging.cmake.
.PHONY: package
package: build
	cd $(BUILD) && cpack -G DEB --config CPackConfig.cmake
