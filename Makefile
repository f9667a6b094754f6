# The two commands of the README: `make demo` and `make test`. Everything else is a helper.
JOBS ?= $(shell nproc)
# Every test runs once: a failure has found something and is never run again to get green. Each
# build's tests run through its test preset, which holds their environment.
CTEST := ctest -j$(JOBS) --preset
# `make stress`: the concurrent and cross-process tests, N times each, stopping at the first failure.
N ?= 20
STRESS_TESTS := concurrent|xpc_tests|extension_runtime_tests|daemon_proxy_tests|e2e_tests|e2e_fault_tests|e2e_display_tests

.PHONY: all deps build build-asan build-tsan build-fuzz test test-default test-asan test-tsan test-fuzz stress fuzz demo bench package clean format tidy

all: build

deps:
	@scripts/install-deps.sh

build/default/build.ninja: | deps
	@cmake --preset default >/dev/null

build: deps build/default/build.ninja
	@cmake --build --preset default -j$(JOBS)

test-default: build
	@$(CTEST) default

build/asan/build.ninja: | deps
	@cmake --preset asan >/dev/null

test-asan: deps build/asan/build.ninja
	@cmake --build --preset asan -j$(JOBS)
	@$(CTEST) asan

build/tsan/build.ninja: | deps
	@cmake --preset tsan >/dev/null

test-tsan: deps build/tsan/build.ninja
	@cmake --build --preset tsan -j$(JOBS)
	@$(CTEST) tsan

build/fuzz/build.ninja: | deps
	@cmake --preset fuzz >/dev/null

# The fuzz targets, briefly: enough to keep them compiling and running clean over their corpora.
test-fuzz: build-fuzz
	@scripts/fuzz.sh build/fuzz 5

# Each build's tests run once; a failure in one build does not stop the others (make -k), and the
# run fails at the end if any did.
test:
	@$(MAKE) --no-print-directory -k test-default test-asan test-tsan test-fuzz

build-asan build-tsan build-fuzz: build-%: deps build/%/build.ninja
	@cmake --build --preset $* -j$(JOBS)

# Every fuzz target for FUZZ_SECONDS each, over a copy of its seed corpus (see fuzz/).
FUZZ_SECONDS ?= 60
fuzz: build-fuzz
	@scripts/fuzz.sh build/fuzz $(FUZZ_SECONDS)

# For hunting lifetime and ordering faults, not for CI.
stress: build-asan build-tsan
	@$(CTEST) asan -R '$(STRESS_TESTS)' --repeat until-fail:$(N)
	@$(CTEST) tsan --repeat until-fail:$(N)

demo: build
	@scripts/demo.sh build/default

bench: build
	@scripts/bench.sh build/default

# A Debian package of the whole installation, in build/default/.
package: build
	@cd build/default && cpack -G DEB

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

tidy: build/default/build.ninja
	@git ls-files '*.cpp' | grep -v -E '^(tests|bench)/' | xargs clang-tidy -p build/default --quiet

clean:
	rm -rf build
