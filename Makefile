# Entry points for people; CMake does the building.
BUILD_DIR ?= build
JOBS ?= $(shell nproc)

.PHONY: deps build test demo clean

deps:
	@bash scripts/install-deps.sh

build: deps
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=Release
	cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS)

demo: build
	@bash scripts/demo.sh $(BUILD_DIR)

clean:
	rm -rf $(BUILD_DIR)
