# Every target installs what it needs from Debian first, so a fresh machine needs only make.
#   make demo   the main job (see README)
#   make test   normal suite, ASan+UBSan suite and short fuzz runs
#   make tsan   the suite under ThreadSanitizer
#   make bench  micro-benchmarks
#   make fuzz   every fuzzer for FUZZ_SECONDS each
#   make bench-macro  end-to-end throughput, latency, CPU and memory table (root)
#   make soak   the end-to-end load and fault suite at full size (root)
#   make install  the binaries, the systemd unit and an example options file (PREFIX, DESTDIR)

SHELL := /bin/bash
SUDO := $(shell [ "$$(id -u)" -eq 0 ] || echo sudo)
JOBS ?= $(shell nproc)
FUZZ_SECONDS ?= 20
WERROR := $(if $(CI),ON,OFF)

# tinyproxy and redsocks are front doors for tests and benchmarks inside private namespaces; the
# install runs with services held back (policy-rc.d) so that neither starts on the host.
# clang, llvm, libbpf-dev and bpftool build the kernel-side selection's BPF programs (the build
# goes on without them, and selection then says it is unavailable); liburing-dev lets its tests
# connect through io_uring.
PACKAGES := g++ clang libclang-rt-14-dev cmake ninja-build pkg-config \
  libgtest-dev libgmock-dev libbenchmark-dev libasio-dev nlohmann-json3-dev \
  libnftables-dev libnetfilter-conntrack-dev libmnl-dev nftables iproute2 procps curl openssl \
  python3 tinyproxy redsocks llvm libbpf-dev bpftool liburing-dev

# Where `make install` puts things; DESTDIR is prepended to every path, for packaging.
PREFIX ?= /usr/local
BINDIR ?= $(PREFIX)/bin
SYSCONFDIR ?= /etc
UNITDIR ?= $(PREFIX)/lib/systemd/system
DATADIR ?= $(PREFIX)/share/tarnwick-proxyext

CONFIGURE = cmake -S . -G Ninja -DTARNWICK_WERROR=$(WERROR)
CTEST = ctest --output-on-failure -j $(JOBS) --timeout 300

.PHONY: deps build test test-normal asan-build test-asan tsan bench bench-macro soak fuzz demo \
  install clean

deps:
	@missing=$$(for p in $(PACKAGES); do dpkg-query -W -f='$${Status}\n' $$p 2>/dev/null \
	  | grep -q 'install ok installed' || echo $$p; done); \
	if [ -n "$$missing" ]; then \
	  echo "Installing:" $$missing; \
	  guard=; if [ ! -e /usr/sbin/policy-rc.d ]; then guard=/usr/sbin/policy-rc.d; \
	    printf '#!/bin/sh\nexit 101\n' | $(SUDO) tee $$guard >/dev/null; $(SUDO) chmod +x $$guard; fi; \
	  $(SUDO) apt-get update -qq && \
	  DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq --no-install-recommends $$missing; \
	  status=$$?; [ -z "$$guard" ] || $(SUDO) rm -f $$guard; exit $$status; \
	fi

build: deps
	$(CONFIGURE) -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	ninja -C build -j $(JOBS)

test-normal: build
	cd build && $(CTEST)

# The sanitizer build also carries the fuzzers' coverage instrumentation, so one clang build
# serves both the ASan+UBSan suite and the fuzz runs.
asan-build: deps
	CC=clang CXX=clang++ $(CONFIGURE) -B build-asan -DCMAKE_BUILD_TYPE=Debug \
	  -DTARNWICK_SANITIZE=address,undefined -DTARNWICK_FUZZ=ON -DTARNWICK_BENCH=OFF >/dev/null
	ninja -C build-asan -j $(JOBS)

test-asan: asan-build
	cd build-asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 $(CTEST)

test: test-normal test-asan fuzz

tsan: deps
	CC=clang CXX=clang++ $(CONFIGURE) -B build-tsan -DCMAKE_BUILD_TYPE=Debug \
	  -DTARNWICK_SANITIZE=thread -DTARNWICK_BENCH=OFF >/dev/null
	ninja -C build-tsan -j $(JOBS)
	cd build-tsan && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 $(CTEST)

bench: build
	@for b in build/bench/*_bench; do [ -x "$$b" ] && "$$b" --benchmark_min_time=0.2; done

fuzz: asan-build
	@shopt -s nullglob; for f in build-asan/tests/fuzz/*_fuzzer; do \
	  name=$$(basename $$f); corpus=build-asan/corpus/$$name; mkdir -p $$corpus; \
	  seeds=tests/fuzz/corpus/$${name%_fuzzer}; [ -d $$seeds ] || seeds=; \
	  echo "== $$name for $(FUZZ_SECONDS)s"; \
	  $$f -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 $$corpus $$seeds 2>&1 \
	    | grep -E '^(stat::number_of_executed_units|==|INFO: Done|.*ERROR)' || exit 1; \
	  test $${PIPESTATUS[0]} -eq 0 || exit 1; \
	done

demo: build
	$(SUDO) BUILD=build tools/demo/demo.sh

# Needs root: private network namespaces, nftables. One run, one table.
bench-macro: build
	$(SUDO) BUILD=build bench/macro/run.sh

# The load and fault suite of tests/e2e, which make test runs at a size that fits CI, at full
# size. Each size can be set on the command line (make soak TW_SOAK_BURST=5000); LoadTest.h says
# what each one counts. Needs root, as every end-to-end test.
TW_SOAK_TRANSFERS ?= 1000
TW_SOAK_TRANSFER_BYTES ?= 2097152
TW_SOAK_BURST ?= 2000
TW_SOAK_CONVERSATIONS ?= 200
TW_SOAK_KILLED ?= 100
TW_SOAK_DEAD_DESTINATIONS ?= 100
TW_SOAK_SHORT_CLIENTS ?= 450
TW_SOAK_AWAIT_COOLDOWN ?= 1
SOAK_SIZES = $(foreach size,TRANSFERS TRANSFER_BYTES BURST CONVERSATIONS KILLED DEAD_DESTINATIONS \
  SHORT_CLIENTS AWAIT_COOLDOWN,TW_SOAK_$(size)=$(TW_SOAK_$(size)))

# Both selection modes, one after the other, as CTest runs the suite.
SOAK_MODES ?= kernel all
soak: build
	cd build && for mode in $(SOAK_MODES); do echo "== selection $$mode"; \
	  time $(SUDO) env $(SOAK_SIZES) TW_E2E_SELECTION=$$mode tests/e2e/e2e_tests \
	  --gtest_filter='LoadTest.*:*/LoadCaseTest.*:*/DaemonAbsenceTest.*' || exit 1; done

# The unit names the installed paths; an options file already in place is never replaced.
install: build
	install -d $(DESTDIR)$(BINDIR) $(DESTDIR)$(UNITDIR) $(DESTDIR)$(DATADIR)
	install -m 0755 build/src/cli/tarnwick-proxyext build/tools/frontdoor/tarnwick-frontdoor \
	  build/tools/daemon/tarnwick-daemon $(DESTDIR)$(BINDIR)/
	sed -e 's|/usr/local/bin/|$(BINDIR)/|' -e 's|/etc/tarnwick-proxyext/|$(SYSCONFDIR)/tarnwick-proxyext/|' \
	  packaging/tarnwick-proxyext.service >$(DESTDIR)$(UNITDIR)/tarnwick-proxyext.service
	chmod 0644 $(DESTDIR)$(UNITDIR)/tarnwick-proxyext.service
	install -m 0644 packaging/options.example.json $(DESTDIR)$(DATADIR)/
	[ -e $(DESTDIR)$(SYSCONFDIR)/tarnwick-proxyext/options.json ] || install -D -m 0644 \
	  packaging/options.example.json $(DESTDIR)$(SYSCONFDIR)/tarnwick-proxyext/options.json

clean:
	rm -rf build build-asan build-tsan
