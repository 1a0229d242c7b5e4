#!/usr/bin/env bash
# Boots a throw-away QEMU guest (Debian's kernel, software emulation) whose root is this machine's
# root shared read-only over 9p, and runs guest-stage.sh in it: the kernel's Bluetooth with btvirt
# emulated controllers and the real bluetoothd. Needs no Bluetooth and no KVM on this machine.
#
#   guest.sh MODE OUTDIR [ARGS...]
# MODE: "cases" (the real-stack test cases) or "duty" (the radio duty figures). OUTDIR (created,
# shared read-write with the guest) receives the guest's logs and results. LUMERIX_BIN names the
# binary under test. Exit status: the guest's.
set -euo pipefail
# Read whole before it runs: an edit to this file during a long run does not reach the run.
{
here=$(cd "$(dirname "$0")" && pwd)
mode=${1:?mode}
out=${2:?output directory}
shift 2
: "${LUMERIX_BIN:?LUMERIX_BIN names the lumerix binary}"
mkdir -p "$out"
out=$(cd "$out" && pwd)
rm -f "$out/status" "$out/guest.env" "$out/stage" "$out/mounts"

# The newest kernel whose modules carry the virtual HCI driver.
kver=""
for dir in /lib/modules/*/; do
  v=$(basename "$dir")
  if [ -r "/boot/vmlinuz-$v" ] && [ -n "$(find "$dir" -name 'hci_vhci.ko*' -print -quit)" ]; then
    kver=$v
  fi
done
if [ -z "$kver" ]; then
  echo "no kernel with Bluetooth modules (install linux-image-amd64)" >&2
  exit 2
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The initramfs: busybox, the modules that reach the shared root, and a shell init.
mkdir -p "$work/root/bin" "$work/root/lib/modules" "$work/root/newroot" "$work/root/proc" "$work/root/sys" \
  "$work/root/dev"
cp /bin/busybox "$work/root/bin/busybox"
# The modules that reach the shared root, each after what it depends on (modules.dep lists a
# module's dependencies, deepest last).
declare -A added=()
add_module() {
  local path=$1 dep
  [ -n "${added[$path]:-}" ] && return
  added[$path]=1
  for dep in $(sed -n "s|^$path: *||p" "/lib/modules/$kver/modules.dep" | tr ' ' '\n' | tac); do
    add_module "$dep"
  done
  cp "/lib/modules/$kver/$path" "$work/root/lib/modules/"
  basename "$path" .ko >>"$work/root/lib/modules/order"
}
for m in virtio_pci 9pnet_virtio 9p; do
  path=$(sed -n "s|^\(.*/$m\.ko\):.*|\1|p" "/lib/modules/$kver/modules.dep")
  # Not listed: built into the kernel.
  [ -n "$path" ] && add_module "$path"
done
cp "$here/guest-init" "$work/root/init"
chmod 755 "$work/root/init"
(cd "$work/root" && find . | cpio -o -H newc --quiet | gzip -1 >"$work/initrd.gz")

# What the guest stage needs to know travels through the shared output directory.
{
  printf 'LX_MODE=%q\n' "$mode"
  printf 'LX_SOURCE=%q\n' "$here"
  printf 'LUMERIX_BIN=%q\n' "$(readlink -f "$LUMERIX_BIN")"
  printf 'LX_ARGS=(%s)\n' "$([ $# -eq 0 ] || printf '%q ' "$@")"
} >"$out/guest.env"
printf '%s\n' "$here/guest-stage.sh" >"$out/stage"
# The checkout and the binary's build tree are shared again at their own paths: the guest lays
# scratch tmpfs over /tmp, /root and others, which would hide a checkout or a binary kept there.
checkout=$(cd "$here/../.." && pwd)
bintree=$(dirname "$(dirname "$(readlink -f "$LUMERIX_BIN")")")
shares=("$checkout")
case "$bintree/" in "$checkout"/*) ;; *) shares+=("$bintree") ;; esac
virtfs=()
: >"$out/mounts"
for i in "${!shares[@]}"; do
  virtfs+=(-virtfs "local,path=${shares[$i]},mount_tag=tree$i,security_model=none,readonly=on,multidevs=remap")
  printf 'tree%s %s\n' "$i" "${shares[$i]}" >>"$out/mounts"
done

# -icount keeps the guest's 2-second HCI timeouts from firing when this machine is busy.
timeout_s=${LX_GUEST_TIMEOUT:-1500}
set +e
timeout --foreground -k 10 "$timeout_s" qemu-system-x86_64 -accel tcg -icount shift=4 -smp 1 -m 1536 \
  -display none -monitor none -serial stdio -no-reboot -nic none \
  -kernel "/boot/vmlinuz-$kver" -initrd "$work/initrd.gz" \
  -append "console=ttyS0 quiet loglevel=3 panic=-1 rdinit=/init" \
  -virtfs local,path=/,mount_tag=hostroot,security_model=none,readonly=on,multidevs=remap \
  -virtfs "local,path=$out,mount_tag=results,security_model=none,multidevs=remap" "${virtfs[@]}" </dev/null
qemu_status=$?
set -e
if [ ! -s "$out/status" ]; then
  echo "the guest ended without a result (qemu exit $qemu_status)" >&2
  exit 2
fi
exit "$(cat "$out/status")"
}
