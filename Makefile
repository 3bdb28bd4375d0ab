# Common tasks in one word. `make help` lists them. PRESET chooses the build: i386-release (the default), i386-asan,
# x64-release or x64-asan.

PRESET ?= i386-release
PREFIX ?= /usr/local
JOBS   ?= $(shell nproc)

BUILD := build/$(PRESET)
# mkfs.fat is outside the path of a normal user on Debian.
export PATH := $(PATH):/usr/sbin:/sbin

.PHONY: all help setup configure build demo test bench install package docs analyse coverage fuzz exercise memcheck format clean

all: build ## the same as build

help: ## list these targets
	@echo 'Targets (PRESET=$(PRESET)):'
	@sed -nE 's/^([a-z]+):.* ## (.*)/  make \1 - \2/p' Makefile

setup: ## install the Debian packages that are missing
	@scripts/setup

configure: setup
	@cmake --preset $(PRESET)

build: configure ## build the library, the tools, the tests and the benchmark
	@cmake --build --preset $(PRESET) --parallel $(JOBS)

demo: build ## make real FAT images, read everything back and compare
	@FATLIB_BUILD=$(BUILD) scripts/demo

test: build ## run the tests
	@ctest --preset $(PRESET) --parallel $(JOBS) --output-junit $(CURDIR)/$(BUILD)/tests.xml
	@scripts/check-behaviour run $(BUILD)/tests.xml docs/behaviour.md docs/durability.md

bench: configure ## run the benchmark
	@cmake --build --preset $(PRESET) --parallel $(JOBS) --target fatlib_bench
	@$(BUILD)/bench/fatlib_bench --json $(BUILD)/bench.json

install: configure ## install library, headers, programs and manual pages under PREFIX (default /usr/local)
	@cmake --build --preset $(PRESET) --parallel $(JOBS) --target fatlib_installed
	@cmake --install $(BUILD) --prefix $(PREFIX)

package: configure ## make Debian packages in build/$(PRESET)/packages
	@cmake --build --preset $(PRESET) --parallel $(JOBS) --target fatlib_installed
	@cd $(BUILD) && cpack -G DEB

docs: ## make the API reference in build/reference, from the public headers
	@scripts/setup docs
	@scripts/docs build/reference

analyse: ## run clang-tidy and cppcheck
	@scripts/setup analyse
	@scripts/analyse

coverage: ## run the tests and print which lines and branches of the library they reach
	@scripts/setup coverage
	@scripts/coverage $(JOBS)

fuzz: ## run the fuzz targets: PRESET=i386-fuzz or "x64-fuzz i386-fuzz", TIME=seconds for each, TARGET=one of them
	@scripts/setup fuzz
	@TIME='$(TIME)' TARGET='$(TARGET)' JOBS='$(JOBS)' scripts/fuzz $(or $(filter %-fuzz,$(PRESET)),x64-fuzz)

exercise: PRESET := x64-release
exercise: configure ## let real programs work in mounted volumes: SHORT=1, SCENE=one of them, TIME=seconds more of random work
	@cmake --build --preset $(PRESET) --parallel $(JOBS) --target fatmount fatexercise
	@TIME='$(TIME)' FATLIB_BUILD=build/$(PRESET) scripts/exercise $(if $(SHORT),--short) $(SCENE)

memcheck: ## run the tests under valgrind (64-bit)
	@scripts/setup memcheck
	@scripts/memcheck $(JOBS)

format: ## format the sources with clang-format
	@git ls-files -z '*.c' '*.cpp' '*.h' | xargs -0 clang-format -i

clean: ## remove everything that was built
	@rm -rf build
