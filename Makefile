# Velmaro: the two commands a newcomer needs are `make demo` and `make test`.
# Each installs what is missing first (scripts/setup.sh is idempotent).

HOST_BUILD := build/host

.PHONY: all setup build host-test e2e test demo bench clean

all: build

setup:
	@bash scripts/setup.sh

build: setup
	@bash scripts/build.sh

# The host suite runs under AddressSanitizer and UBSan: any finding fails it.
host-test: setup
	@cmake -S tests/host -B $(HOST_BUILD) -DCMAKE_BUILD_TYPE=Debug -DVELMARO_SANITIZE=ON >/dev/null
	@cmake --build $(HOST_BUILD) -j$$(nproc) -- -s
	@cd $(HOST_BUILD) && ctest -j$$(nproc) --output-on-failure --timeout 120

# shell_move.py moves an EFI folder on a stick's second partition with OVMF's own shell,
# through the test-only build/ShellMoveProbe.efi, and reads the stick back.
# driver_loading.py loads the test-only build/StandInDriver.efi as the application loads a
# file-system driver, through build/DriverProbe.efi, and judges what the log shows.
# scenarios.py switches installer groups on whole sticks (the test-only
# build/StandInInstaller.efi is every group's installer) and judges each stick read back.
# Every script runs even when an earlier one fails, so one failure hides no other result.
e2e: build
	@status=0; for t in shell_move driver_loading scenarios; do \
	  python3 tests/e2e/$$t.py || status=1; done; exit $$status

# One table of file-protocol behaviours answered twice: by the host suite's FAT volume
# (FileBehaviourTest writes host-file-table.txt) and by OVMF's own driver through the
# test-only build/FileProbe.efi. Fails naming every row where the two answers differ.
.PHONY: file-table
file-table: build host-test
	@python3 tests/e2e/file_table.py --host $(HOST_BUILD)/host-file-table.txt

# The driver-loading scenarios answered twice: by the host suite's fake firmware
# (DriverTableTest writes host-driver-<scenario>.log) and by OVMF (the transcripts `make e2e`
# left, or fresh boots when they are older than the probe). Fails naming every fact where
# the two logs differ.
.PHONY: driver-table
driver-table: build host-test
	@python3 tests/e2e/driver_loading.py --host $(HOST_BUILD)

test: host-test e2e file-table driver-table

demo: build
	@bash scripts/demo.sh

# Every status of every firmware call at every call number, through each operation the
# sweep suite covers (`make test` runs a fixed sample of the same sweep).
.PHONY: sweep
sweep: setup
	@cmake -S tests/host -B $(HOST_BUILD) -DCMAKE_BUILD_TYPE=Debug -DVELMARO_SANITIZE=ON >/dev/null
	@cmake --build $(HOST_BUILD) --target host_tests -j$$(nproc) -- -s
	@VELMARO_SWEEP=full $(HOST_BUILD)/host_tests --gtest_filter='Sweep*' --gtest_brief=1

# Our MD5 against OpenSSL's and Md5OfFile through the fake firmware; prints figures,
# fails only when digests disagree. The bench target builds itself at -O2.
# Then the simulated time the source selection waits for drivers and controllers, per
# stick layout: the same table the host suite asserts, printed.
# Last, the file-protocol calls of a switch, of a run that finds its group active and of
# the active check, beside the least their proofs need: the figures CallCountTest bounds.
bench: setup
	@cmake -S tests/host -B $(HOST_BUILD) >/dev/null
	@cmake --build $(HOST_BUILD) --target md5_bench host_tests -j$$(nproc) >/dev/null
	@$(HOST_BUILD)/md5_bench
	@echo
	@VELMARO_PRINT_WAITS=1 $(HOST_BUILD)/host_tests --gtest_filter='SourceSelectionTest.*' --gtest_brief=1 | grep -v '^\[\|^Running main\|^Note: '
	@echo
	@VELMARO_PRINT_CALLS=1 $(HOST_BUILD)/host_tests --gtest_filter='CallCountTest.*' --gtest_brief=1 | grep -v '^\[\|^Running main\|^Note: '

clean:
	rm -rf build
