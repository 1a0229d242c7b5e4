#!/bin/bash
# Runs inside the guest, on this machine's root (read-only) with scratch tmpfs: loads the kernel's
# Bluetooth, starts a system bus, then hands over to realstack.py, which runs the emulated
# controllers, bluetoothd and the chosen mode. Leaves the exit status in the results directory.
set -u
out=/run/lx-out
# shellcheck disable=SC1091
source "$out/guest.env"
export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8
export LX_OUT=$out LUMERIX_BIN PYTHONPATH="$LX_SOURCE:$LX_SOURCE/../e2e"
status=1
trap 'echo "$status" >"$out/status"; dmesg >"$out/dmesg.log" 2>&1; sync' EXIT

echo "guest: kernel $(uname -r) up after $(cut -d' ' -f1 /proc/uptime) s"
ip link set lo up
mount -t debugfs debugfs /sys/kernel/debug  # the emulator reads and writes controller knobs there
# The emulator does its controllers' crypto through the kernel's AF_ALG sockets.
modprobe -a bluetooth hci_vhci af_alg algif_hash algif_skcipher || { echo "guest: no Bluetooth modules"; exit; }
mkdir -p /run/dbus
dbus-daemon --system --fork || { echo "guest: no system bus"; exit; }
if [ "$LX_MODE" = shell ]; then
  # Commands for looking around in the guest by hand.
  bash -c "${LX_ARGS[*]}"
else
  /usr/bin/python3 "$LX_SOURCE/realstack.py" "$LX_MODE" "${LX_ARGS[@]}"
fi
status=$?
