# Entry points for people; CMake does the building.
BUILD_DIR ?= build
JOBS ?= $(shell nproc)
FUZZ_SECONDS ?= 60

.PHONY: deps build test demo clean fuzz

deps:
	@bash scripts/install-deps.sh

build: deps
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=Release
	cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS)

# Each fuzz target in turn for FUZZ_SECONDS seconds, or FUZZ_RUNS executions
# when given and sooner (fuzz/run.sh).
fuzz: build
	@FUZZ_RUNS=$(FUZZ_RUNS) bash fuzz/run.sh $(BUILD_DIR) $(FUZZ_SECONDS)

demo: build
	@bash scripts/demo.sh $(BUILD_DIR)

clean:
	rm -rf $(BUILD_DIR)
