# Korvane: the commands a user types. Every target first makes sure the
# Debian packages the build needs are installed (scripts/bootstrap).

BUILD       ?= build
ASAN_BUILD  ?= build-asan
FUZZ_BUILD  ?= build-fuzz
FUZZ_SECONDS ?= 60
JOBS        ?= $(shell nproc)
CTEST_FLAGS ?= --output-on-failure -j $(JOBS)

.PHONY: all build test asan fuzz demo clean bootstrap install uninstall deb

all: build

bootstrap:
	@./scripts/bootstrap

$(BUILD)/build.ninja: CMakeLists.txt | bootstrap
	cmake -S . -B $(BUILD) -G Ninja

build: bootstrap $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest $(CTEST_FLAGS)

asan: bootstrap
	cmake -S . -B $(ASAN_BUILD) -G Ninja -DKORV_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest $(CTEST_FLAGS)

# Builds every libFuzzer target with clang and runs each for FUZZ_SECONDS,
# starting from its seed corpus in tests/fuzz/corpus/<name> when there is one.
fuzz: bootstrap
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD) -G Ninja -DKORV_FUZZ=ON
	cmake --build $(FUZZ_BUILD) -j $(JOBS)
	@set -e; targets=$$(cat $(FUZZ_BUILD)/fuzz_targets.txt | tr ';' ' '); \
	if [ -z "$$targets" ]; then echo "fuzz: no fuzz targets yet"; exit 0; fi; \
	for t in $$targets; do \
	    name=$${t#fuzz_}; work=$(FUZZ_BUILD)/corpus/$$name; mkdir -p $$work; \
	    if [ -d tests/fuzz/corpus/$$name ]; then cp -r tests/fuzz/corpus/$$name/. $$work/; fi; \
	    echo "fuzz: $$t for $(FUZZ_SECONDS)s"; \
	    $(FUZZ_BUILD)/tests/fuzz/$$t -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 $$work; \
	done

demo: build
	@if [ -x $(BUILD)/korvane ]; then ./demo/run $(BUILD); \
	else echo "make demo: the server binary does not exist yet; this target will run it on the demo configuration once it does."; fi

# Runs ftpload against Korvane and the peer servers on loopback and prints the ratio table
# (BENCHMARKS.md); root only, about ten minutes. Not part of `make test`.
.PHONY: bench
bench: build
	./bench/compare.sh $(BUILD)

# Installation: the programs in $(PREFIX)/sbin, the pages and manual pages under
# $(PREFIX)/share, the systemd unit, a first /etc/korvane.ini (never replaced)
# and the home /var/lib/korvane, all under $(DESTDIR) when it is set.
PREFIX ?= /usr/local

install: build
	DESTDIR="$(DESTDIR)" cmake --install $(BUILD) --prefix $(PREFIX)

uninstall:
	DESTDIR="$(DESTDIR)" ./scripts/uninstall $(BUILD) $(PREFIX)

# The Debian package, checked by lintian: $(BUILD)/deb/korvane_<version>_<arch>.deb.
deb: build
	./scripts/mkdeb $(BUILD) $(BUILD)/deb

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD)
