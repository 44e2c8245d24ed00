#!/bin/sh
# Runs a test binary under the umockdev preload library, so that libusb finds the emulated
# cameras of the test's testbed instead of the machine's bus, with the real libusb backend.
LD_PRELOAD="libumockdev-preload.so.0${LD_PRELOAD:+:$LD_PRELOAD}"
# gcc's AddressSanitizer wants its runtime first in the library list; the preload is first.
ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}verify_asan_link_order=0"
export LD_PRELOAD ASAN_OPTIONS
unset EVCAM_SIM
exec "$@"
