# Front door of the project. `make test` installs what is missing, builds and runs every test;
# `make demo` shows the agent at work against the bundled protocol peer.
JOBS    ?= $(shell nproc)
CMAKE_FLAGS ?= $(if $(CI),-DNIVO_WERROR=ON,)
CTEST   = ctest --output-on-failure -j $(JOBS)

.PHONY: all deps build test test-asan test-tsan test-all demo bench fuzz fuzz-ci deb test-install mutate \
	format clean

all: build

deps:
	@scripts/install-deps

# configure(<dir>, <extra cmake flags>)
define configure
	cmake -S . -B $(1) -G Ninja $(CMAKE_FLAGS) $(2) >/dev/null
endef

build: deps
	$(call configure,build,)
	cmake --build build -j $(JOBS)

test: build
	cd build && $(CTEST)

# AddressSanitizer + UBSan over the whole suite.
test-asan: deps
	$(call configure,build-asan,-DNIVO_SANITIZE=address -DCMAKE_BUILD_TYPE=Debug)
	cmake --build build-asan -j $(JOBS)
	cd build-asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 $(CTEST)

# ThreadSanitizer over the whole suite.
test-tsan: deps
	$(call configure,build-tsan,-DNIVO_SANITIZE=thread -DCMAKE_BUILD_TYPE=Debug)
	cmake --build build-tsan -j $(JOBS)
	cd build-tsan && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 $(CTEST)

test-all: test test-asan test-tsan fuzz-ci

demo: build
	scripts/demo build

# The plugin runner against a bare vfork, then the whole agent against a bare posix_spawn.
bench: build
	build/bench/bench_execute
	build/bench/bench_agent
	build/bench/bench_order_memory

# Faults put into src/ one at a time, each against the suite: killers, survivors and the score.
# MUTATE_FLAGS="--count 300 --seed 7" samples differently; --list shows the sample only.
mutate: deps
	scripts/mutate $(MUTATE_FLAGS)

FUZZ_SECONDS ?= 300
fuzz: deps
	$(call configure,build-fuzz,-DNIVO_FUZZ=ON -DBUILD_TESTING=OFF -DCMAKE_CXX_COMPILER=clang++-14 -DCMAKE_BUILD_TYPE=RelWithDebInfo)
	cmake --build build-fuzz -j $(JOBS)
	scripts/run-fuzz build-fuzz $(FUZZ_SECONDS)

fuzz-ci:
	$(MAKE) fuzz FUZZ_SECONDS=30

# The Debian package, built from a clean copy of the tree and checked by lintian: build-deb/*.deb.
deb: deps
	JOBS=$(JOBS) scripts/build-deb

# Builds the package, then installs, runs, upgrades, removes and purges it in a throw-away root.
test-install: deps
	JOBS=$(JOBS) scripts/test-install

format:
	clang-format-14 -i $$(git ls-files '*.h' '*.cpp')

clean:
	rm -rf build build-asan build-tsan build-fuzz build-deb
