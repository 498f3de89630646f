# make deps    install packages and build the libraries that Debian does not have (once, into a cache)
# make build   the above, and the programs
# make test    the above, and every test
# make demo    build, then show two systems that aggregate their links
# make format  check the layout of the C++ sources
# make clean   remove the build directory
#
# BUILD names the build directory, JOBS the number of parallel compilations.

BUILD ?= build
JOBS ?= $(shell nproc)

.PHONY: deps build test demo format clean

deps:
	scripts/deps.sh >/dev/null

build: deps
	cmake -S . -B $(BUILD) -G Ninja
	cmake --build $(BUILD) -j $(JOBS)

test: build format
	ctest --test-dir $(BUILD) --output-on-failure --no-tests=error --no-label-summary -j $(JOBS)

demo: build
	scripts/demo.py $(BUILD)

format: deps
	scripts/test-format.sh

clean:
	rm -rf $(BUILD)
