# The two commands of the README: `make demo` and `make test`. Everything else is a helper.
JOBS ?= $(shell nproc)
# A test that fails is run again, up to three times in all, so that a rare timing fault on a loaded
# machine does not hide the rest of the run; every failure is still printed.
CTEST := ctest --output-on-failure -j$(JOBS) --repeat until-pass:3

.PHONY: all deps build test test-default test-asan test-tsan demo bench package clean format tidy

all: build

deps:
	@scripts/install-deps.sh

build/default/build.ninja: | deps
	@cmake --preset default >/dev/null

build: deps build/default/build.ninja
	@cmake --build --preset default -j$(JOBS)

test-default: build
	@cd build/default && $(CTEST)

build/asan/build.ninja: | deps
	@cmake --preset asan >/dev/null

test-asan: deps build/asan/build.ninja
	@cmake --build --preset asan -j$(JOBS)
	@cd build/asan && ASAN_OPTIONS=detect_leaks=1 LSAN_OPTIONS=suppressions=$(CURDIR)/cmake/lsan.supp $(CTEST)

build/tsan/build.ninja: | deps
	@cmake --preset tsan >/dev/null

test-tsan: deps build/tsan/build.ninja
	@cmake --build --preset tsan -j$(JOBS)
	@cd build/tsan && $(CTEST) -L concurrent

test: test-default test-asan test-tsan

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
