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
# package and zelta.pc, with the MIB generator's library and zelta-mibgen.pc,
# made by CPack into $(BUILD)/; see cmake/ZeltaPackaging.cmake.
.PHONY: package
package: build
	cd $(BUILD) && cpack -G DEB --config CPackConfig.cmake

# Sanitizer runs, each in a build directory of its own, with clang: its
# AddressSanitizer, UBSan and ThreadSanitizer, and its -Wthread-safety checks
# the lock annotations on the way. Every report ends the test. Net-SNMP has no
# frame pointers, so LeakSanitizer unwinds fully on malloc to see the
# Net-SNMP functions that tests/lsan.supp names (its own start-up leaks).
.PHONY: test-asan test-tsan fuzz
SAN_CXX ?= clang++
SAN_CMAKE = -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=$(SAN_CXX) -DZELTA_BUILD_EXAMPLES=OFF $(CMAKE_FLAGS)
ASAN_ENV = ASAN_OPTIONS=fast_unwind_on_malloc=0:detect_stack_use_after_return=1:check_initialization_order=1 \
	LSAN_OPTIONS=suppressions=$(CURDIR)/tests/lsan.supp:print_suppressions=0 \
	UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
TSAN_ENV = TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
# The test programs in which threads meet: the agent thread, save workers,
# the debounce worker, host threads.
TSAN_TESTS = stress_test|param_test|snmp_test|snmpagent_test|agentx_test|delayed_test|snmpclient_test|notify_test|config_test

# The whole suite under AddressSanitizer and UBSan.
test-asan: deps
	cmake -S . -B build-asan $(SAN_CMAKE) -DZELTA_SANITIZE=address,undefined
	cmake --build build-asan -j $(JOBS)
	cd build-asan && $(ASAN_ENV) ctest --output-on-failure -j $(JOBS)

# The threaded test programs under ThreadSanitizer.
test-tsan: deps
	cmake -S . -B build-tsan $(SAN_CMAKE) -DZELTA_SANITIZE=thread
	cmake --build build-tsan -j $(JOBS) --target zelta $(subst |, ,$(TSAN_TESTS))
	cd build-tsan && $(TSAN_ENV) ctest --output-on-failure -j $(JOBS) -L '^($(TSAN_TESTS))$$'

# Each libFuzzer target for FUZZ_SECONDS, under AddressSanitizer and UBSan,
# starting from its corpus in fuzz/corpus/; what it finds new goes to
# $(FUZZ_BUILD)/corpus/<name>/, never into the tree. A crash stops the run and
# leaves the input as $(FUZZ_BUILD)/crash-*.
FUZZ_SECONDS ?= 30
FUZZ_BUILD ?= build-fuzz
FUZZERS = deserialize_fuzz base64_fuzz groupfile_fuzz agent_fuzz
fuzz: deps
	cmake -S . -B $(FUZZ_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ -DZELTA_BUILD_FUZZ=ON \
		-DZELTA_SANITIZE=address,undefined -DZELTA_BUILD_TESTS=OFF -DZELTA_BUILD_EXAMPLES=OFF $(CMAKE_FLAGS)
	cmake --build $(FUZZ_BUILD) -j $(JOBS) --target $(FUZZERS)
	set -e; for f in $(FUZZERS); do \
		mkdir -p $(FUZZ_BUILD)/corpus/$$f; \
		echo "fuzz: $$f for $(FUZZ_SECONDS) s"; \
		UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 $(FUZZ_BUILD)/fuzz/$$f -max_total_time=$(FUZZ_SECONDS) \
			-timeout=60 -close_fd_mask=1 -print_final_stats=1 -artifact_prefix=$(FUZZ_BUILD)/ \
			$(FUZZ_BUILD)/corpus/$$f fuzz/corpus/$$f; \
	done
