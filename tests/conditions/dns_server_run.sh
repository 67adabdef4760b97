#!/bin/sh
# Runs a test program against a real DNS server: in a private network and
# mount namespace, dnsmasq answers on 127.0.0.1:53 from a records file in
# which "v6only.test" has only an AAAA record, and the namespace's resolver
# configuration names it. The program runs twice: with the server up
# (CR_DNS_SERVER=up) and after it stopped (CR_DNS_SERVER=down).
#
#   dns_server_run.sh PROGRAM [ARGUMENTS...]
#
# Exit status 77 (skipped) when the namespace cannot be made.
set -u
if ! unshare -n -m true 2>/dev/null; then
  echo "cannot make a private network and mount namespace (unshare -n -m)"
  exit 77
fi
exec unshare -n -m sh -s "$@" <<'INNER'
set -u
mount --make-rprivate /
dir=$(mktemp -d /tmp/cr-dns-XXXXXX)
trap 'kill "$server" 2>/dev/null; wait "$server" 2>/dev/null; umount /etc/resolv.conf 2>/dev/null; rm -rf "$dir"' EXIT
printf 'fd00:53::7 v6only.test\n' >"$dir/records"
printf 'nameserver 127.0.0.1\noptions timeout:1 attempts:1\n' >"$dir/resolv.conf"
mount --bind "$dir/resolv.conf" /etc/resolv.conf
ip link set lo up
dnsmasq --no-daemon --conf-file=/dev/null --listen-address=127.0.0.1 --port=53 --bind-interfaces \
  --no-resolv --no-hosts --addn-hosts="$dir/records" --user=root --log-facility=/dev/null &
server=$!
tries=0
until grep -q ':0035 ' /proc/net/udp 2>/dev/null; do
  tries=$((tries + 1))
  [ "$tries" -gt 100 ] && { echo "dnsmasq does not listen"; exit 1; }
  sleep 0.05
done
# Each run must pass and must have run its test (a skip would pass too).
run() {
  phase=$1
  shift
  out=$(CR_DNS_SERVER=$phase "$@" 2>&1)
  status=$?
  printf '%s\n' "$out"
  [ "$status" -eq 0 ] || exit 1
  case $out in *"[       OK ]"*) ;; *) echo "the test did not run"; exit 1 ;; esac
}
run up "$@"
kill "$server"
wait "$server" 2>/dev/null
run down "$@"
INNER
