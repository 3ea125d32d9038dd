# Velmaro: the two commands a newcomer needs are `make demo` and `make test`.
# Each installs what is missing first (scripts/setup.sh is idempotent).

HOST_BUILD := build/host

.PHONY: all setup build host-test e2e test demo bench clean

all: build

setup:
	@bash scripts/setup.sh

build: setup
	@bash scripts/build.sh

host-test: setup
	@cmake -S tests/host -B $(HOST_BUILD) -DCMAKE_BUILD_TYPE=Debug >/dev/null
	@cmake --build $(HOST_BUILD) -j$$(nproc) -- -s
	@cd $(HOST_BUILD) && ctest --output-on-failure --timeout 60

e2e: build
	@python3 tests/e2e/smoke_test.py

test: host-test e2e

demo: build
	@bash scripts/demo.sh

# Every status of every firmware call at every call number, through each operation the
# sweep suite covers (`make test` runs a fixed sample of the same sweep).
.PHONY: sweep
sweep: setup
	@cmake -S tests/host -B $(HOST_BUILD) -DCMAKE_BUILD_TYPE=Debug >/dev/null
	@cmake --build $(HOST_BUILD) --target host_tests -j$$(nproc) -- -s
	@VELMARO_SWEEP=full $(HOST_BUILD)/host_tests --gtest_filter='Sweep*' --gtest_brief=1

# Our MD5 against OpenSSL's and Md5OfFile through the fake firmware; prints figures,
# fails only when digests disagree. The bench target builds itself at -O2.
bench: setup
	@cmake -S tests/host -B $(HOST_BUILD) >/dev/null
	@cmake --build $(HOST_BUILD) --target md5_bench -j$$(nproc) >/dev/null
	@$(HOST_BUILD)/md5_bench

clean:
	rm -rf build
