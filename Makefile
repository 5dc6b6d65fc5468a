# Entry points for people and CI. `make run` builds and launches the editor; `make test` builds and
# runs every test. Both install the Debian packages they need first (see `make deps`).

BUILD      ?= build
ASAN_BUILD ?= build-asan
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 600
CMAKE_ARGS ?=
JOBS       ?= $(shell nproc)

# Everything the build, the tests and the benchmarks need from Debian 12.
DEPS := cmake ninja-build g++ pkg-config make \
        libgtest-dev libgmock-dev googletest libbenchmark-dev \
        nlohmann-json3-dev \
        qt6-base-dev qt6-multimedia-dev libgl-dev \
        libavformat-dev libavcodec-dev libavutil-dev libswscale-dev libswresample-dev \
        ffmpeg xvfb xauth time clang-16 libclang-rt-16-dev

SUDO := $(shell [ "$$(id -u)" -eq 0 ] || echo sudo)

.PHONY: deps configure build test bench sanitize fuzz run clean

deps:
	@missing=$$(for p in $(DEPS); do dpkg-query -W -f='$${Status}\n' $$p 2>/dev/null | grep -q '^install ok installed$$' || echo $$p; done); \
	if [ -n "$$missing" ]; then \
	  echo "Installing:" $$missing; \
	  $(SUDO) apt-get update && DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y --no-install-recommends $$missing; \
	fi

$(BUILD)/build.ninja:
	cmake -S . -B $(BUILD) -G Ninja $(CMAKE_ARGS)

build: deps $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

bench: build
	$(BUILD)/bench/micro/timeline_bench

sanitize: deps
	cmake -S . -B $(ASAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DVANTRIX_BUILD_BENCH=OFF \
	  "-DVANTRIX_SANITIZE=address;undefined" $(CMAKE_ARGS)
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 ctest --output-on-failure -j $(JOBS)

# Every fuzzer (clang + libFuzzer, ASan + UBSan) for FUZZ_SECONDS each, from the committed seeds;
# new corpus entries stay in $(FUZZ_BUILD)/corpus. A finding stops the run with its input in
# $(FUZZ_BUILD)/findings: add it to fuzz/findings/ (replayed by tests/persistence and tests/media)
# and fix it. The media fuzzer runs in libFuzzer's fork mode: every input runs in a child process,
# and one that hangs past -timeout or crashes stops the run (fuzz/README.md).
fuzz: deps
	cmake -S . -B $(FUZZ_BUILD) -G Ninja -DCMAKE_CXX_COMPILER=clang++-16 -DVANTRIX_FUZZ=ON
	cmake --build $(FUZZ_BUILD) -j $(JOBS)
	mkdir -p $(FUZZ_BUILD)/corpus/session $(FUZZ_BUILD)/corpus/media $(FUZZ_BUILD)/findings
	$(FUZZ_BUILD)/fuzz/session_decoder_fuzzer -max_total_time=$(FUZZ_SECONDS) -timeout=10 -rss_limit_mb=2048 \
	  -dict=fuzz/session.dict -artifact_prefix=$(FUZZ_BUILD)/findings/ -print_final_stats=1 \
	  $(FUZZ_BUILD)/corpus/session fuzz/corpus/session fuzz/findings
	$(FUZZ_BUILD)/fuzz/media_opening_fuzzer -fork=1 -ignore_crashes=0 -ignore_timeouts=0 -ignore_ooms=0 \
	  -max_total_time=$(FUZZ_SECONDS) -timeout=10 -rss_limit_mb=2048 -max_len=16384 \
	  -dict=fuzz/media.dict -artifact_prefix=$(FUZZ_BUILD)/findings/ -print_final_stats=1 \
	  $(FUZZ_BUILD)/corpus/media fuzz/corpus/media fuzz/findings/media

# `make run FILE=clip.mov` opens the clip; without FILE the editor starts empty. Without a display
# it stops at once with one line.
run:
	$(if $(DISPLAY)$(WAYLAND_DISPLAY),,$(error No display found; on a headless machine try: xvfb-run -a make run FILE=clip.mov))
	@$(MAKE) --no-print-directory deps $(BUILD)/build.ninja
	cmake --build $(BUILD) --target vantrix -j $(JOBS)
	$(BUILD)/src/vantrix $(if $(FILE),"$(FILE)")

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD)

# The player's tests and the long editing session under ThreadSanitizer (decode, audio, the app
# model's workers and the GUI thread meet there).
TSAN_BUILD ?= build-tsan
.PHONY: tsan
tsan: deps
	cmake -S . -B $(TSAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVANTRIX_BUILD_BENCH=OFF \
	  -DVANTRIX_SANITIZE=thread $(CMAKE_ARGS)
	cmake --build $(TSAN_BUILD) -j $(JOBS) --target player_tests app_stress_tests
	cd $(TSAN_BUILD) && TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$(CURDIR)/tests/media/tsan.supp" ctest --output-on-failure -R '^(PlayerTest|PlayerSwapTest|States/|Cases/AudioRing|AudioRing|Playhead|StressTest\.)' -j $(JOBS)
