# The README's interface. Every target installs what it needs first, so a fresh Debian 12
# machine needs nothing else.
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=RelWithDebInfo

.PHONY: deps configure build test demo bench fuzz sanitize clean

deps:
	bash scripts/install-deps

configure: deps
	cmake -S . -B $(BUILD) -G Ninja $(CMAKE_FLAGS)

build: configure
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

demo: build
	bash scripts/demo $(BUILD)

bench: configure
	cmake --build $(BUILD) -j $(JOBS) --target benchmarks
	bash scripts/run-benchmarks $(BUILD)

# libFuzzer targets, built with clang in their own folder, each run for FUZZ_SECONDS.
FUZZ_SECONDS ?= 60
fuzz: deps
	CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DVUMO_BUILD_FUZZERS=ON -DVUMO_BUILD_TESTS=OFF -DVUMO_BUILD_BENCHMARKS=OFF
	cmake --build build-fuzz -j $(JOBS)
	bash scripts/run-fuzzers build-fuzz $(FUZZ_SECONDS)

# The tests under AddressSanitizer and UndefinedBehaviorSanitizer.
sanitize: deps
	cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DVUMO_SANITIZE=ON -DVUMO_BUILD_BENCHMARKS=OFF
	cmake --build build-asan -j $(JOBS)
	cd build-asan && ctest --output-on-failure -j $(JOBS)

clean:
	rm -rf $(BUILD) build-fuzz build-asan
