#!/bin/sh
# The kernel source end to end, in a private network namespace: smcroute sets routes, requests are posted and answers
# read over the agent's socket. Run as: unshare -rn sh kernel-end-to-end.sh BIN_DIR on|off (the Lumen toggle).
# Prints what went wrong and ends with status 1, or prints "held".
set -eu
bin=$1
folder=$(mktemp -d)
agent=
daemons=
trap 'kill $agent $daemons 2>/dev/null || true; rm -rf "$folder"' EXIT

ip link set lo up
for i in 1 2 3 4; do
    ip link add "e$i" type veth peer name "p$i"
    ip addr add "10.9.$i.1/24" dev "e$i"
    ip link set "e$i" up
    ip link set "p$i" up
done
ip addr add 10.9.1.2/24 dev p1
echo 1 >/proc/sys/net/ipv4/ip_forward
echo 0 >/proc/sys/net/ipv4/conf/all/rp_filter
echo 0 >/proc/sys/net/ipv4/conf/e1/rp_filter
echo 1 >/proc/sys/net/ipv4/conf/e1/accept_local

ctl() { "$bin/kestrelctl" --socket "$folder/agent" "$@"; }

# becomes COMMAND WANTED: polls until the command prints the wanted text, 2 s at most (longer on a busy machine).
becomes() {
    tries=0
    got=$(sh -c "$1" 2>&1) || true
    while [ "$got" != "$2" ] && [ $tries -lt 250 ]; do
        tries=$((tries + 1))
        sleep 0.02
        got=$(sh -c "$1" 2>&1) || true
    done
    [ "$got" = "$2" ] || {
        echo "'$1' gave '$got', not '$2'"
        exit 1
    }
}
oifs() { becomes "\"$bin/kestrelctl\" --socket $folder/agent show mroute | grep \"$1\" | cut -d' ' -f1- | sed 's/.*Eth9  *1  *//'" "$2"; }

# daemon NAME [OPTION...]: an smcrouted on all four interfaces; its control socket is $folder/NAME.
daemon() {
    name=$1
    shift
    printf 'phyint e1 enable\nphyint e2 enable\nphyint e3 enable\nphyint e4 enable\n' >"$folder/$name.conf"
    smcrouted -n -N -i "$name" -f "$folder/$name.conf" -c -P "$folder/$name.pid" -u "$folder/$name" "$@" \
        >"$folder/$name.log" 2>&1 &
    daemons="$daemons $!"
    last=$!
    for _ in $(seq 200); do
        [ ! -S "$folder/$name" ] || return 0
        sleep 0.02
    done
    cat "$folder/$name.log"
    exit 1
}

echo '{"vrfs": [{"name": "default"}, {"name": "red", "id": 3, "table": 100}]}' >"$folder/kernel.json"
"$bin/kestrel-agent" --socket "$folder/agent" --kernel "$folder/kernel.json" --toggle "KestrelNatMfibLumen=$2" \
    >"$folder/out" 2>"$folder/err" &
agent=$!
becomes "cat $folder/out" ready
daemon main
first=$last
becomes "\"$bin/kestrelctl\" --socket $folder/agent show vrfs | grep -c 'default  *0  *yes'" 1
ctl request mroute intf Eth9 vrf default vlan 1 source 10.9.1.2 group 239.1.1.1 >/dev/null

smcroutectl -u "$folder/main" add e1 10.9.1.2 239.1.1.1 e2 e3
oifs 239.1.1.1 "e2 e3"
smcroutectl -u "$folder/main" add e1 10.9.1.2 239.1.1.1 e4
oifs 239.1.1.1 "e2 e3 e4"
smcroutectl -u "$folder/main" remove e1 10.9.1.2 239.1.1.1 e2
oifs 239.1.1.1 "e3 e4"

# A rename, and an interface that goes without any route event.
ip link set e4 down
ip link set e4 name x4
ip link set x4 up
oifs 239.1.1.1 "e3 x4"
ip link del e3
oifs 239.1.1.1 x4

# A rule for a range of groups makes an (S,G) route of the first packet.
ctl request mroute intf Eth9 vrf default vlan 1 source 10.9.1.2 group 239.2.0.7 >/dev/null
smcroutectl -u "$folder/main" add e1 0.0.0.0 239.2.0.0/16 e2
python3 - <<'PYTHON'
import socket
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.bind(("10.9.1.2", 0))
s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton("10.9.1.2"))
s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_TTL, 8)
s.sendto(b"x", ("239.2.0.7", 4000))
PYTHON
oifs 239.2.0.7 e2

# Another table of the kernel is another VRF.
daemon second -t 100
ctl request mroute intf Eth9 vrf red vlan 1 source 10.9.1.2 group 239.3.3.3 >/dev/null
smcroutectl -u "$folder/second" add e1 10.9.1.2 239.3.3.3 e2
oifs 239.3.3.3 e2

ctl kernel verify >"$folder/verify" || {
    cat "$folder/verify"
    exit 1
}
kill "$first"
becomes "\"$bin/kestrelctl\" --socket $folder/agent show routes | grep -c default || true" 0
ctl kernel verify >/dev/null
kill "$agent"
wait "$agent"
agent=
echo held
