# Entry points for people. Everything is built by CMake below out/; what a
# target needs from Debian is installed first, when it is missing.

PREFIX ?= /usr/local
JOBS ?= $(shell nproc)
SECONDS_EACH ?= 20

.PHONY: all demo test test-arm fuzz soak bench bench-docs size cross-arm install clean

all:
	scripts/install-packages build
	cmake --preset release
	cmake --build out/release -j $(JOBS)

demo:
	scripts/install-packages build tools demo
	cmake --preset release -DMEDIAFILES_TOOLS=ON
	cmake --build out/release -j $(JOBS)
	scripts/demo out/release

# The tests of the optimised build, those of the sanitizers' build, and the
# library's for 32-bit ARM under emulation.
test:
	scripts/install-packages build tools test arm
	cmake --preset test
	cmake --build out/test -j $(JOBS)
	cmake --preset sanitizers
	cmake --build out/sanitizers -j $(JOBS)
	ctest --test-dir out/test --output-on-failure -j $(JOBS)
	ctest --test-dir out/sanitizers --output-on-failure -j $(JOBS)
	$(MAKE) test-arm

test-arm:
	scripts/install-packages build arm
	cmake --preset arm-neon
	cmake --build out/arm-neon -j $(JOBS)
	ctest --test-dir out/arm-neon --output-on-failure -j $(JOBS)

fuzz:
	scripts/install-packages build fuzz
	cmake --preset fuzz
	cmake --build out/fuzz -j $(JOBS) -t fuzz-targets
	scripts/fuzz out/fuzz $(SECONDS_EACH)

# What takes too long for every day.
soak:
	scripts/install-packages build tools test
	cmake --preset sanitizers
	cmake --build out/sanitizers -j $(JOBS)
	out/sanitizers/fuzz/hostile-journals 1000000

# A table of what recording and repair cost, and a failure where they cost more
# than they may. QUICK=1 makes the runs short.
bench:
	scripts/install-packages build bench
	cmake --preset bench
	cmake --build out/bench -j $(JOBS)
	scripts/bench out/bench

# What the last bench found, and the size, into docs/performance.md.
bench-docs: size
	scripts/bench out/bench docs

# What the shared library takes of a device, likewise.
size:
	scripts/install-packages build arm size
	cmake --preset size
	cmake --build out/size --target mediafiles -j $(JOBS)
	cmake --preset size-arm
	cmake --build out/size-arm --target mediafiles -j $(JOBS)
	scripts/size x86-64 out/size 32-bit-ARM out/size-arm

cross-arm:
	scripts/install-packages build arm
	cmake --preset arm
	cmake --build out/arm -j $(JOBS)

install:
	scripts/install-packages build
	cmake -S . -B out/install -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=$(PREFIX)
	cmake --build out/install -j $(JOBS)
	DESTDIR=$(DESTDIR) cmake --install out/install

clean:
	rm -rf out
