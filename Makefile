# Entry points for people. CMake builds everything below out/; each target first
# installs the Debian packages that it needs and that are missing.

PREFIX ?= /usr/local
JOBS ?= $(shell nproc)
SECONDS_EACH ?= 20
KILLS ?= 300
SEED ?=

.PHONY: all demo web test test-web test-threads test-arm test-cross test-clang fuzz soak coverage mutants device device-docs clang lines lint \
    abi bench bench-docs size cross-arm deb install clean

all:
	scripts/install-packages build
	cmake --preset release
	cmake --build out/release -j $(JOBS)

# "scripts/demo-picture out/release docs/demo.svg" draws it for the README.
demo:
	scripts/install-packages build tools demo
	cmake --preset release -DMEDIAFILES_TOOLS=ON
	cmake --build out/release -j $(JOBS)
	scripts/demo out/release

# The page that repairs in a browser.
web:
	scripts/install-packages build web
	cmake --preset web
	cmake --build out/web -j $(JOBS)

# The tests of the optimised build, those of the sanitizers' builds, and the
# library's for 32-bit ARM under emulation, which writes the same bytes.
test:
	scripts/install-packages build tools gstreamer test arm
	cmake --preset test
	cmake --build out/test -j $(JOBS)
	cmake --preset sanitizers
	cmake --build out/sanitizers -j $(JOBS)
	ctest --test-dir out/test --output-on-failure -j $(JOBS)
	ctest --test-dir out/sanitizers --output-on-failure -j $(JOBS)
	$(MAKE) web
	node --test web/tests/module.test.mjs
	$(MAKE) test-threads
	$(MAKE) test-arm
	tests/exchange_test.sh testdata out/test out/arm-neon out/web
	@scripts/counts check out/test

# The page in Chromium, and its module with all hostile inputs.
test-web: web
	scripts/install-packages build tools browser
	cmake --preset test
	cmake --build out/test -j $(JOBS) --target mediafiles-command example-record power_cut_test write-plans
	cd web && npm ci --no-progress
	HOSTILE_EVERY=1 node --test web/tests/module.test.mjs web/tests/browser.test.mjs

# The tests of the recorder and of the element for GStreamer under ThreadSanitizer.
test-threads:
	scripts/install-packages build gstreamer test
	cmake --preset tsan
	cmake --build out/tsan -j $(JOBS) --target recorder-tests
	ctest --test-dir out/tsan --output-on-failure -L threads

test-arm:
	scripts/install-packages build arm
	cmake --preset arm-neon
	cmake --build out/arm-neon -j $(JOBS)
	ctest --test-dir out/arm-neon --output-on-failure -j $(JOBS)

fuzz:
	scripts/install-packages build fuzz
	cmake --preset fuzz
	cmake --build out/fuzz -j $(JOBS) -t fuzz-targets
	fuzz/run out/fuzz $(SECONDS_EACH)

# Tests that take too long for every day: KILLS recorders are killed at random
# moments, and as many recoveries of 200 pairs at random system calls; the power
# goes at 20,000 moments of recordings; a recorder runs through the times of a
# week; 500 finished files lie beside journals of every kind; for an hour something
# happens to a camera. SEED repeats what is random.
soak:
	scripts/install-packages build tools gstreamer test
	cmake --preset test
	cmake --build out/test -j $(JOBS)
	python3 tests/kill_test.py --tool out/test/tools/mediafiles --media testdata --count $(KILLS) $(SEED:%=--seed %)
	RECOVERY_PAIRS=200 RECOVERY_KILLS=$(KILLS) out/test/tests/recovery_files_test --gtest_filter='*ManyPairs*'
	RECORDER_CUTS=20000 out/test/tests/recorder_power_test
	python3 tests/recovery_command_test.py --tool out/test/tools/mediafiles --example out/test/examples/example-record \
	    --recover out/test/examples/example-recover --media testdata --finished 500 $(SEED:%=--seed %)
	python3 tests/recorder_judges_test.py --drive out/test/tests/recorder-drive --media testdata --week 604800 \
	    RecorderTest.test_week
	python3 tests/live_sources_test.py --tool out/test/tools/mediafiles --media testdata --soak 3600 $(SEED:%=--seed %) Soak
	cmake --preset sanitizers
	cmake --build out/sanitizers -j $(JOBS)
	out/sanitizers/fuzz/hostile-journals 1000000

# Prints which branches of the library its tests take; fails when they are too few.
coverage:
	scripts/install-packages build test coverage
	cmake --preset coverage
	cmake --build out/coverage -j $(JOBS)
	find out/coverage -name '*.gcda' -delete
	ctest --test-dir out/coverage --output-on-failure -j $(JOBS) -L library
	scripts/coverage out/coverage

# Changes each library one place at a time, 300 times; fails when the tests miss
# more of the changes than they may.
mutants:
	scripts/install-packages build tools mutants
	scripts/mutants --jobs $(JOBS) out/mutants src=97 recorder=85

# Cuts the power of whole systems: CUTS cuts for each KIND of card (ext4, f2fs,
# fat32, exfat) of the recordings from SEED on, under kernels for MACHINE (x86-64,
# arm). Adds them to device/results.jsonl; what is there already is left out.
# QUICK=1: those of ext4, f2fs and FAT32.
CUTS ?= 32
KIND ?= ext4 f2fs fat32 $(if $(QUICK),,exfat)
MACHINE ?= x86-64
device:
	scripts/install-packages build tools arm device
	for preset in device device-arm; do cmake --preset $$preset || exit 1; done
	cmake --build out/device -j $(JOBS) --target device-programs mediafiles-command
	cmake --build out/device-arm -j $(JOBS) --target device-programs
	device/run --machine $(MACHINE) --kind $(KIND) --cuts $(CUTS) $(SEED:%=--seed %)

# Puts the results into docs/crash-safety.md.
device-docs:
	device/run --page

# Library and tests for 32-bit and 64-bit ARM, under emulation, and for 32-bit
# x86; these and WebAssembly write the same bytes as this machine, and repair
# each other's.
CROSS = arm-neon aarch64 i386
test-cross:
	scripts/install-packages build tools test arm aarch64 i386
	$(MAKE) web
	cmake --preset test
	cmake --build out/test -j $(JOBS) --target example-record example-recover check-mp4
	for target in $(CROSS); do \
	    cmake --preset $$target && cmake --build out/$$target -j $(JOBS) && \
	    ctest --test-dir out/$$target --output-on-failure -j $(JOBS) || exit 1; \
	done
	tests/exchange_test.sh testdata out/test $(addprefix out/,$(CROSS)) out/web

# The tests under the sanitizers of clang; those of gcc are part of test.
test-clang:
	scripts/install-packages build tools gstreamer test fuzz
	cmake --preset clang-sanitizers
	cmake --build out/clang-sanitizers -j $(JOBS)
	ctest --test-dir out/clang-sanitizers --output-on-failure -j $(JOBS)

# The build with clang alone.
clang:
	scripts/install-packages build tools gstreamer test clang
	cmake --preset clang
	cmake --build out/clang -j $(JOBS)

# Prints the share of the tests in all code and the lengths of their bodies, and
# fails where they are above their limits.
lines:
	scripts/install-packages lines
	scripts/lines

# Static checks.
lint:
	scripts/install-packages build tools gstreamer test lint
	cmake --preset test
	cmake --build out/test -j $(JOBS) --target mediafiles mediafiles-recorder
	scripts/lint out/test

# After an intended change of the interface.
abi:
	scripts/install-packages build tools gstreamer test
	cmake --preset test
	cmake --build out/test -j $(JOBS) --target mediafiles mediafiles-recorder
	scripts/abi renew out/test/src/libmediafiles.so
	scripts/abi renew out/test/recorder/libmediafiles-recorder.so

# Prints what recording and repair cost, and fails where that is above its limit.
# QUICK=1 makes the runs short.
bench:
	scripts/install-packages build gstreamer bench
	cmake --preset bench
	cmake --build out/bench -j $(JOBS)
	bench/run out/bench

# Puts the results of the last bench, and the size, into docs/performance.md.
bench-docs: size
	bench/run out/bench docs

# What the shared library takes of a device; fails when it is too much.
size:
	scripts/install-packages build tools arm size
	cmake --preset size
	cmake --build out/size --target mediafiles-recorder --target mediafiles-repair -j $(JOBS)
	cmake --preset size-arm
	cmake --build out/size-arm --target mediafiles-recorder --target mediafiles-repair -j $(JOBS)
	$(MAKE) web
	scripts/size x86-64 out/size 32-bit-ARM out/size-arm

cross-arm:
	scripts/install-packages build arm
	cmake --preset arm
	cmake --build out/arm -j $(JOBS)

# Packages of library, command and page, and of the library for Debian's armhf.
deb:
	scripts/install-packages build tools gstreamer arm deb
	$(MAKE) web
	rm -rf out/packages
	for target in deb deb-armhf; do \
	    cmake --preset $$target && cmake --build out/$$target -j $(JOBS) && \
	    cpack --config out/$$target/CPackConfig.cmake -B out/packages || exit 1; \
	done
	lintian --allow-root --fail-on error out/packages/*.deb
	apt-get install --simulate -qq ./out/packages/*_amd64.deb ./out/packages/*_all.deb
	tests/consumers_test.sh "$(CURDIR)" out/packages/*_amd64.deb

install:
	scripts/install-packages build
	cmake -S . -B out/install -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=$(PREFIX)
	cmake --build out/install -j $(JOBS)
	DESTDIR=$(DESTDIR) cmake --install out/install

clean:
	rm -rf out
