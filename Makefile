# The commands. CMake does the work, in build/<preset>. Each target installs the Debian packages it needs, unless what
# scripts/packages.txt names for them is there.
.DEFAULT_GOAL := help
# No target is a file.
.PHONY: $(shell awk -F: '/^[a-z][a-z-]*:/ { print $$1 }' Makefile)

PACKAGES := g++ cmake ninja-build pkg-config git libssl-dev libjson-c-dev libboost-dev python3
PACKAGES_tests := libgtest-dev python3-kconfiglib strace gnuplot-nox openssl shellcheck systemd \
	libuv1-dev libevent-dev libglib2.0-dev libsystemd-dev
# A user's build leaves an example out if the package of its loop is missing; the tests fail.
ALL_EXAMPLES := -D CLOUDTUNNEL_ALL_EXAMPLES=ON
PACKAGES_lint := clang clang-format clang-tidy cppcheck
PACKAGES_coverage := gcovr
PACKAGES_device := clang lld lld-19 llvm qemu-user dpkg-dev debian-archive-keyring xz-utils perl make python3
PACKAGES_valgrind := valgrind
PACKAGES_abi := abigail-tools
PACKAGES_docs := doxygen
PACKAGES_package := scdoc dpkg-dev file lintian
PACKAGES_package-test := debootstrap
PACKAGES_cost := valgrind
# Beside which the library is measured: what is not installed is left out.
PACKAGES_peers := libboost-dev libwebsockets-dev libwslay-dev
# The servers that the module is tried against, and the packet analyser that reads the simulator's key log.
PACKAGES_interop := nginx haproxy caddy websocketd nodejs node-ws perl libmojolicious-perl libio-socket-ssl-perl \
    python3-websockets python3-aiohttp python3-tornado python3-hypercorn python3-uvicorn python3-wsproto tshark
PACKAGES_page := chromium nodejs npm fonts-dejavu-core
PACKAGES_fuzz := clang libclang-rt-dev llvm

# How long each fuzz target runs.
SECONDS ?= 20

help: ## What can be made
	@awk -F ':.*## ' '/^[a-z-]+:.*## / { printf "  %-14s %s\n", $$1, $$2 }' $(MAKEFILE_LIST)

demo: packages ## Build, and watch a tunnel come up, work and close
	cmake --preset release
	cmake --build --preset release --target demo_programs
	scripts/demo.sh build/release/apps/sim/cloudtunnel-sim build/release/apps/module/cloudtunnel-module

# A module of a model that the user names: DESK_MODEL=log.
DESK_MODEL ?= base
desk: packages ## Build, start the simulator with its page and a module, and print the page's address
	cmake --preset release
	cmake --build --preset release --target demo_programs
	scripts/desk.sh build/release/apps/sim/cloudtunnel-sim build/release/apps/module/cloudtunnel-module $(DESK_MODEL)

test: test-release test-sanitize ## Build and run all tests, then again under the sanitizers

test-release: packages packages-tests ## The tests of what is shipped
	cmake --preset release $(ALL_EXAMPLES)
	cmake --build --preset release
	ctest --preset release

test-sanitize: packages packages-tests ## The tests under the address and undefined-behaviour sanitizers
	cmake --preset sanitize $(ALL_EXAMPLES)
	cmake --build --preset sanitize
	ctest --preset sanitize

test-clang: packages packages-tests packages-lint ## The tests, built with clang
	cmake --preset clang $(ALL_EXAMPLES)
	cmake --build --preset clang
	ctest --preset clang

test-page: packages packages-page ## The simulator's page in a browser (SCREENSHOTS=folder keeps its pictures)
	cmake --preset release
	cmake --build --preset release --target demo_programs
	scripts/test-page.sh build/release

# What the page contains of other projects, from npm as pinned in tests/page; the files are committed.
web: packages-page ## Renew those files of the page that come from other projects
	cd tests/page && npm ci --ignore-scripts
	cp tests/page/node_modules/htm/preact/standalone.module.js apps/sim/web/vendor/preact.js
	cp tests/page/node_modules/htm/LICENSE apps/sim/web/vendor/LICENSE.htm

test-tsan: packages packages-tests ## What several threads may do, under the thread sanitizer
	cmake --preset tsan
	cmake --build --preset tsan
	ctest --preset tsan

valgrind: packages packages-tests packages-valgrind ## The whole-tunnel tests under valgrind's memcheck
	cmake --preset valgrind
	cmake --build --preset valgrind
	ctest --preset valgrind

delays: packages packages-tests ## The tests of whole programs, with their system calls delayed at random (SEED=n)
	cmake --preset release $(ALL_EXAMPLES)
	cmake --build --preset release
	scripts/delays.sh release $(SEED)

# One run after the other, so that each has the machine to itself. SEED=n draws other random numbers.
SEED := 1
soak: packages packages-tests ## Load and simulated months over real sockets, under 10 minutes (SEED=n)
	cmake --preset release
	cmake --build --preset release --target soak_test
	build/release/tests/soak/soak_test --form=full --seed=$(SEED)

device: device-tested ## For the device (64-bit ARM, musl, OpenSSL 1.1): build, test under emulation, measure
	scripts/device/footprint.py check build/device build/device-fast docs/footprint.md

footprint: device-tested ## Measure what the library costs on the device, and write docs/footprint.md
	scripts/device/footprint.py write build/device build/device-fast docs/footprint.md

matrix: packages packages-tests packages-lint packages-device ## Build and test with both compilers, both releases of OpenSSL, Debug and Release
	scripts/device/host-openssl.sh build/platform
	scripts/matrix.sh build/platform/openssl

# The simulator runs on this machine.
device-tested: packages packages-tests packages-device
	scripts/device/sysroot.sh build/platform
	cmake --preset release
	cmake --build --preset release --target cloudtunnel-sim
	cmake --preset device
	cmake --build --preset device
	cmake --preset device-fast
	cmake --build --preset device-fast
	ctest --preset device

torture: packages packages-tests ## Every call that can fail, fails once: under the sanitizers, in less than an hour
	cmake --preset sanitize
	cmake --build --preset sanitize --target torture
	build/sanitize/tests/torture/torture

# A refactoring names the revision before it.
CASES := 20000
compare: packages packages-tests ## Show that this tree's library behaves as revision BASE's, byte for byte (CASES=n SEED=n)
	scripts/compare.sh "$(BASE)" $(CASES) $(SEED)

COUNT ?= 60
mutants: packages packages-tests ## Plant COUNT=n small faults in the library, one at a time, and show those no test notices (SEED=n)
	nice scripts/mutants.py --count $(COUNT) --seed $(SEED) . build/mutants

cost: packages packages-tests packages-cost ## Count the library's instructions, and compare with bench/cost.txt
	cmake --preset release
	cmake --build --preset release --target bench_programs
	bench/cost.py check build/release/bench bench/cost.txt

cost-update: packages packages-tests packages-cost ## Write the counts into bench/cost.txt, after an intended change
	cmake --preset release
	cmake --build --preset release --target bench_programs
	bench/cost.py write build/release/bench bench/cost.txt

# Single rows: ROWS='echo plain 16 B'. QUICK=1 and ROWS write into build/release/performance, not into docs/.
bench: packages packages-tests ## The library beside bare sockets and its peers, under 15 minutes (QUICK=1: two)
	-@$(MAKE) --no-print-directory packages-peers
	cmake --preset release
	cmake --build --preset release --target bench_programs demo_programs
	bench/bench.py build/release $(if $(QUICK),--quick) --rows '$(ROWS)'

# A server that cannot be installed is left out by name; where CI is set its cases fail.
interop: packages packages-tests ## The module against servers of other hands, on loopback, in a minute (ONLY='nginx')
	-@$(MAKE) --no-print-directory packages-interop
	cmake --preset release
	cmake --build --preset release --target interop_programs
	tests/interop/interop.py build/release --only '$(ONLY)'

coverage: packages packages-tests packages-coverage ## Line and branch coverage of the library
	cmake --preset coverage
	cmake --build --preset coverage
	find build/coverage -name '*.gcda' -delete
	ctest --preset coverage
	gcovr --config gcovr.cfg --txt
	gcovr --config gcovr.cfg --branches --txt

fuzz: packages packages-tests packages-fuzz ## Fuzz each target for SECONDS=n seconds, 20 by default
	cmake --preset fuzz
	cmake --build --preset fuzz
	scripts/fuzz.sh $(SECONDS)

fuzz-coverage: packages packages-tests packages-coverage ## How much of its sources the kept corpus of each fuzz target covers
	cmake --preset coverage
	cmake --build --preset coverage --target fuzz_programs
	scripts/fuzz-coverage.sh

format: packages-lint ## Format every source file
	scripts/format.sh

format-check: packages-lint ## Fail if a source file is not formatted
	scripts/format.sh --check

lint: packages packages-tests packages-lint ## The layer table against the calls; clang-tidy and cppcheck over library and programs
	cmake --preset clang $(ALL_EXAMPLES)
	scripts/lint.sh build/clang

abi: packages packages-abi ## Fail if the library's interface is not as abi/ describes it
	scripts/abi.sh

abi-update: packages packages-abi ## Rewrite the description in abi/, after an intended change
	scripts/abi.sh --update

docs: packages packages-docs ## The reference of the public header, in build/release/docs/html/index.html
	cmake --preset release
	cmake --build --preset release --target docs

package: packages packages-package ## Debian packages of library, development files and programs, in build/package
	scripts/package.sh

package-test: package packages-package-test ## Install them in a bare Debian, build the example there and run it
	scripts/package-test.sh build/package

clean: ## Remove everything that was built
	rm -rf build

packages:
	@scripts/install-packages.sh $(PACKAGES)

packages-%:
	@scripts/install-packages.sh $(or $(PACKAGES_$*),$(error no PACKAGES_$* in the Makefile))
