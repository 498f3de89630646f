# make deps    install packages and build the libraries that Debian does not have (once, into a cache)
# make build   the above, and the programs
# make test    every test; installs what only tests need
# make lab     build, then two cabled terminals to log in to, until Ctrl-C; with PARTNER=openvswitch one and a partner
#              of another make (Debian's openvswitch-switch)
# make demo    build, then show two systems that aggregate their links
# make longrun two systems under random changes for DURATION seconds (an hour)
# make nightly the long run for ten minutes, many edits of other clients, the package in virtual machines, fuzzing for FUZZ
#              seconds a target, the tests under the sanitizers
# make measure every figure of docs/performance.md again; wants a machine with nothing else to do
# make format  check the layout of the C++ sources
# make clean   remove the build directory
#
# BUILD names the build directory, JOBS the number of parallel compilations.

BUILD ?= build
JOBS ?= $(shell nproc)

DURATION ?= 3600
FUZZ ?= 120

.PHONY: deps test-deps build tests test lab demo longrun nightly measure format clean

deps:
	scripts/deps.sh >/dev/null

test-deps:
	scripts/deps.sh --tests >/dev/null

build: deps
	cmake -S . -B $(BUILD) -G Ninja -DLACPD_TESTS=OFF
	cmake --build $(BUILD) -j $(JOBS)

tests: test-deps
	cmake -S . -B $(BUILD) -G Ninja -DLACPD_TESTS=ON
	cmake --build $(BUILD) -j $(JOBS)

test: tests format
	@scripts/test-share.sh --check
	ctest --test-dir $(BUILD) --output-on-failure --no-tests=error --no-label-summary -j $$((3 * $(JOBS)))

lab: build $(if $(PARTNER),test-deps)
	python3 -m lab $(BUILD) $(if $(PARTNER),--partner $(PARTNER))

demo: build
	scripts/demo.py $(BUILD)

longrun: build
	tests/scenarios/longrun.py --build=$(BUILD) --duration=$(DURATION) --log=$(BUILD)/longrun.log

nightly: tests
	scripts/deps.sh --nightly >/dev/null
	tests/packaging/boot_check.sh $(BUILD)
	tests/scenarios/longrun.py --build=$(BUILD) --duration=600 --log=$(BUILD)/longrun.log
	cd tests/scenarios && LACPD_EDITS=600 pytest-3 -p no:cacheprovider --build=$(abspath $(BUILD)) test_clients.py
	scripts/fuzz.sh $(FUZZ)
	scripts/deps.sh --sanitize thread >/dev/null
	for preset in asan tsan; do \
	  cmake --preset $$preset && cmake --build --preset $$preset -j $(JOBS) && ctest --preset $$preset || exit 1; \
	done

measure: tests
	tests/scenarios/measure_systems.py --build=$(BUILD)
	LACPD_BUILD_DIR=$(BUILD) nice -n -15 tests/switch/measure_forwarding.py
	$(BUILD)/tests/benchmarks/engine_benchmark --benchmark_repetitions=5 --benchmark_report_aggregates_only=true >/dev/null
	tests/benchmarks/count-instructions.sh $(BUILD)

format: test-deps
	scripts/test-format.sh

clean:
	rm -rf $(BUILD)
