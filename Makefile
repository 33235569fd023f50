# One command for each job. The work itself is described by CMakePresets.json and the CMake lists;
# every target first has scripts/bootstrap.sh install what it needs and what is missing.

JOBS ?= $(shell nproc)

# How many schedules a schedule search runs. The release build uses the tests' own numbers; under
# a sanitizer, and with many more points, a schedule takes several times as long and fewer must do.
asan: export NETSIEVE_SCHEDULES ?= 400
tsan: export NETSIEVE_SCHEDULES ?= 250
search: export NETSIEVE_SCHEDULES ?= 2500

CTEST = ctest --output-on-failure --no-tests=error --parallel $(JOBS) --test-dir
SOURCES = find src host tools samples windows tests bench -name '*.cpp' -o -name '*.h' -o -name '*.c'

.DEFAULT_GOAL := help
.NOTPARALLEL:
.PHONY: help build image signed-image demo test bench format format-check tidy asan tsan fuzz \
    search coverage nightly mutants mutants-checks mutants-generated clean

help: ## print this list
	@awk -F ':.*## ' '/^[a-z-]+:.*## / { printf "  make %-17s %s\n", $$1, $$2 }' $(MAKEFILE_LIST)

# The first configuration leaves out tests and benchmarks, so that building the command does not
# need their libraries. A tree that has them keeps them.
build: ## build the command, build/bin/netsieve
	@scripts/bootstrap.sh build
	@test -f build/release/build.ninja || \
	    cmake --preset release -DNETSIEVE_TESTS=OFF -DNETSIEVE_BENCH=OFF
	cmake --build --preset release --parallel $(JOBS) --target netsieve samples

image: ## cross-build the driver and its package, build/package
	@scripts/bootstrap.sh build image
	@test -f build/image-work/build.ninja || cmake --preset image
	cmake --build --preset image --parallel $(JOBS)

signed-image: image ## test-sign a copy of the package, build/package-signed
	@scripts/bootstrap.sh sign
	scripts/sign-package.sh build/package build/package-signed

demo: build image ## replay a capture through the driver, and block DNS in it
	@scripts/bootstrap.sh demo
	scripts/demo.sh

test: image ## build everything for release and run all tests
	@scripts/bootstrap.sh build test
	@cmake --preset release -DNETSIEVE_TESTS=ON -DNETSIEVE_BENCH=ON
	cmake --build --preset release --parallel $(JOBS)
	$(CTEST) build/release

bench: image ## run the benchmarks (release)
	@scripts/bootstrap.sh build test
	@cmake --preset release -DNETSIEVE_BENCH=ON
	cmake --build --preset release --parallel $(JOBS)
	build/release/bench/netsieve_bench

asan: image ## run all tests under AddressSanitizer and UndefinedBehaviorSanitizer
	@scripts/bootstrap.sh build test checks
	@test -f build/asan/build.ninja || cmake --preset asan
	cmake --build --preset asan --parallel $(JOBS)
	$(CTEST) build/asan

FUZZ_SECONDS ?= 60

fuzz: image ## run each fuzz target for FUZZ_SECONDS (60)
	@scripts/bootstrap.sh build test checks
	@test -f build/fuzz/build.ninja || cmake --preset fuzz
	cmake --build --preset fuzz --parallel $(JOBS) --target fuzz_targets
	scripts/fuzz.sh build/fuzz $(FUZZ_SECONDS)

tsan: image ## run all tests under ThreadSanitizer
	@scripts/bootstrap.sh build test checks
	@test -f build/tsan/build.ninja || cmake --preset tsan
	cmake --build --preset tsan --parallel $(JOBS)
	$(CTEST) build/tsan

search: image ## run the tests with every load and store of the driver a scheduling point
	@scripts/bootstrap.sh build test checks
	@test -f build/search/build.ninja || cmake --preset search
	cmake --build --preset search --parallel $(JOBS)
	$(CTEST) build/search

# One file of counts for each program, which all its runs add to.
coverage: export NETSIEVE_SCHEDULES ?= 1000
coverage: image ## run the tests, and print what of the driver none of them reaches
	@scripts/bootstrap.sh build test checks
	@test -f build/coverage/build.ninja || cmake --preset coverage
	cmake --build --preset coverage --parallel $(JOBS)
	rm -rf build/coverage/profiles
	LLVM_PROFILE_FILE=$(CURDIR)/build/coverage/profiles/%m.profraw $(CTEST) build/coverage
	scripts/coverage.py build/coverage

# What a night has time for, behind the whole static analysis. NIGHTLY takes what the script knows:
# hours, a shard, budgets.
NIGHTLY ?=

nightly: image tidy ## fuzz and search for eight hours, and leave a page, build/nightly/report.md
	@scripts/bootstrap.sh build test checks
	@cmake --preset release -DNETSIEVE_TESTS=ON -DNETSIEVE_BENCH=ON
	cmake --build --preset release --parallel $(JOBS)
	@test -f build/search/build.ninja || cmake --preset search
	cmake --build --preset search --parallel $(JOBS)
	@test -f build/fuzz/build.ninja || cmake --preset fuzz
	cmake --build --preset fuzz --parallel $(JOBS) --target fuzz_targets
	scripts/nightly.py --jobs $(JOBS) $(NIGHTLY)

mutants-checks: ## disable each check of the verifier alone, and see that the tests find it
	@scripts/bootstrap.sh build test checks
	@scripts/mutants.py --checks --jobs $(JOBS)

mutants: mutants-checks ## put each hand-made fault into the driver, and see that the tests find it
	@scripts/bootstrap.sh build test checks
	@scripts/mutants.py --jobs $(JOBS)

# What was found is kept, and an interrupted run goes on. MUTANTS takes what else the script knows.
SEED ?= 1
COUNT ?= 300
SET ?= driver

mutants-generated: ## the same with COUNT (300) faults that SEED (1) draws from SET (driver)
	@scripts/bootstrap.sh build test checks
	@scripts/mutants.py --generated --seed $(SEED) --count $(COUNT) --set $(SET) --jobs $(JOBS) $(MUTANTS)

format: ## format the sources in place
	@scripts/bootstrap.sh checks
	@$(SOURCES) | xargs clang-format-14 -i

format-check: ## fail if a source is not formatted
	@scripts/bootstrap.sh checks
	@$(SOURCES) | xargs clang-format-14 --dry-run --Werror --ferror-limit=1 || \
	    { echo "Not formatted: run 'make format'." >&2; exit 1; }

# SINCE, a commit, leaves out what has not changed since then.
SINCE ?=

tidy: ## static analysis
	@scripts/bootstrap.sh build test checks
	@scripts/tidy.sh $(JOBS) $(SINCE)

clean: ## remove everything that was built
	rm -rf build
