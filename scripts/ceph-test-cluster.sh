#!/usr/bin/env bash
# A throwaway one-node Ceph cluster for the tests, the main job and the
# benchmarks: one monitor, one manager, one OSD keeping its objects in memory
# and a radosgw, all on 127.0.0.1, all state in one folder of their own, no
# systemd. Daemons are stopped by the process ids recorded at start.
#
#   scripts/ceph-test-cluster.sh start   starts the cluster (or keeps a healthy
#                                        one) and prints its environment
#   scripts/ceph-test-cluster.sh stop    stops it and removes its folder
#   scripts/ceph-test-cluster.sh env     prints the environment of a running one
#   scripts/ceph-test-cluster.sh stop-rgw    stops only radosgw (for fault tests)
#   scripts/ceph-test-cluster.sh start-rgw   starts it again on its port
#
# The environment (export lines, also in $BRICKDISK_CEPH_DIR/env.sh):
# CEPH_CONF, CEPH_KEYRING, BRICKDISK_CEPH_POOL (a pool for tests),
# AWS_ENDPOINT_URL, AWS_ACCESS_KEY_ID, AWS_SECRET_ACCESS_KEY.
#
# Settings: BRICKDISK_CEPH_DIR (default /tmp/brickdisk-ceph),
# BRICKDISK_CEPH_STORE_BYTES (size of the in-memory store, default 6 GiB;
# the OSD's memory grows to about twice the bytes written),
# BRICKDISK_CEPH_RGW=0 to leave radosgw out.
set -euo pipefail

dir=${BRICKDISK_CEPH_DIR:-/tmp/brickdisk-ceph}
store_bytes=${BRICKDISK_CEPH_STORE_BYTES:-6442450944}
with_rgw=${BRICKDISK_CEPH_RGW:-1}
pool=brickdisk-test
s3_access_key=BRICKDISKTESTACCESS1
s3_secret_key=brickdisktestsecretkey000000000000000001
conf=$dir/ceph.conf
keyring=$dir/keyring
pids=$dir/pids
envfile=$dir/env.sh
# The ceph programs run here talk to this cluster, whatever cluster the
# caller's environment names.
export CEPH_CONF=$conf
unset CEPH_KEYRING

fail() {
    echo "ceph-test-cluster: $*" >&2
    for log in "$dir"/log/*.out "$dir"/log/*.log; do
        [ -f "$log" ] && { echo "--- last lines of $log" >&2; tail -n 10 "$log" >&2; }
    done
    exit 1
}

# alive PID: the process runs and is not a zombie (daemons re-parented in a
# container may never be reaped).
alive() {
    local state
    state=$(awk '/^State:/ {print $2}' "/proc/$1/status" 2>/dev/null) || return 1
    [ -n "$state" ] && [ "$state" != Z ] && [ "$state" != X ]
}

# ours PID EXE: the process still runs the program we started (guards
# against a reused process id).
ours() { [ "$(readlink "/proc/$1/exe" 2>/dev/null)" = "$2" ]; }

# The ports a cluster chose are claimed in $claims (a folder per port that
# names the cluster's folder) until the cluster stops: clusters started at the
# same time (the fault tests each start one) never choose the same port, and
# the port of a radosgw stopped for a fault test stays its cluster's, where
# another cluster would otherwise start its own gateway with the same keys.
claims=/tmp/brickdisk-ceph-ports

# free_port FROM: the first port from FROM on that nothing listens on and no
# running cluster claimed; claims it for the cluster in $dir.
free_port() {
    local port=$1 owner
    mkdir -p "$claims"
    while true; do
        if ! (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then
            if mkdir "$claims/$port" 2>/dev/null; then
                echo "$dir" >"$claims/$port/owner"
                break
            fi
            owner=$(cat "$claims/$port/owner" 2>/dev/null || true)
            # The claim of a cluster whose folder is gone is taken over.
            if [ -n "$owner" ] && [ ! -d "$owner" ]; then
                rm -rf "${claims:?}/$port"
                continue
            fi
        fi
        port=$((port + 1))
    done
    echo "$port"
}

# Gives up the ports claimed for the cluster in $dir.
release_ports() {
    local claim
    for claim in "$claims"/*; do
        if [ "$(cat "$claim/owner" 2>/dev/null || true)" = "$dir" ]; then
            rm -rf "$claim"
        fi
    done
}

# launch NAME PROGRAM ARGS...: a daemon in the foreground of its own session.
launch() {
    local name=$1 program
    program=$(command -v "$2")
    shift 2
    setsid "$program" -c "$conf" -f "$@" >>"$dir/log/$name.out" 2>&1 </dev/null &
    echo "$name $! $program" >>"$pids"
}

# stop_daemon NAME PID PROGRAM: TERM (KILL for the in-memory OSD, which would
# otherwise first write its whole store to disk), KILL after 5 s.
stop_daemon() {
    local name=$1 pid=$2 program=$3 signal=TERM i
    alive "$pid" && ours "$pid" "$program" || return 0
    [ "${name%%.*}" = osd ] && signal=KILL
    kill -s "$signal" "$pid" 2>/dev/null || true
    for ((i = 0; i < 50; i++)); do alive "$pid" || return 0; sleep 0.1; done
    ours "$pid" "$program" && kill -KILL "$pid" 2>/dev/null || true
    for ((i = 0; i < 50; i++)); do alive "$pid" || return 0; sleep 0.1; done
}

healthy() {
    [ -f "$pids" ] && [ -f "$envfile" ] || return 1
    local name pid program
    while read -r name pid program; do alive "$pid" || return 1; done <"$pids"
    timeout 20 rados --client_mount_timeout 10 -p "$pool" stat probe >/dev/null 2>&1
}

write_conf() {
    local fsid=$1 mon_v2=$2 mon_v1=$3 rgw_port=$4
    cat >"$conf" <<EOF
[global]
fsid = $fsid
mon_host = [v2:127.0.0.1:$mon_v2,v1:127.0.0.1:$mon_v1]
public_network = 127.0.0.0/8
ms_bind_ipv4 = true
ms_bind_ipv6 = false
auth_cluster_required = cephx
auth_service_required = cephx
auth_client_required = cephx
auth_allow_insecure_global_id_reclaim = false
keyring = $keyring
run_dir = $dir/run
crash_dir = $dir/crash
# One OSD: one copy of each object, placement without failure domains.
osd_pool_default_size = 1
osd_pool_default_min_size = 1
osd_pool_default_pg_num = 8
osd_pool_default_pgp_num = 8
osd_pool_default_pg_autoscale_mode = off
osd_crush_chooseleaf_type = 0
mon_allow_pool_size_one = true
mon_allow_pool_delete = true
mon_warn_on_pool_no_redundancy = false
mon_max_pg_per_osd = 1000
# A placement group serves only while its read lease runs (by default 0.8
# times the heartbeat grace, 16 s). With one OSD no peer acknowledges a
# renewed lease, and a group whose lease ran out while the OSD stood still
# (paused by a test, or starved of processor time) can stay "laggy" once it
# runs again, holding back every operation on its objects for minutes. A
# group takes its lease's length when it peers: 200 s here.
osd_pool_default_read_lease_ratio = 10
# The folder lies on whatever disk /tmp is: do not warn or stop when it fills.
mon_data_avail_warn = 2
mon_data_avail_crit = 1
# The manager without its optional modules starts faster.
mgr_initial_modules = iostat
# Map changes are proposed at once instead of after a second.
paxos_propose_interval = 0.1

[mon]
mon_data = $dir/mon/\$cluster-\$id
log_file = $dir/log/\$cluster-\$name.log
mon_cluster_log_file = $dir/log/\$cluster.\$channel.log

[mgr]
mgr_data = $dir/mgr/\$cluster-\$id
log_file = $dir/log/\$cluster-\$name.log
public_addr = 127.0.0.1

[osd]
osd_data = $dir/osd/\$cluster-\$id
log_file = $dir/log/\$cluster-\$name.log
public_addr = 127.0.0.1
cluster_addr = 127.0.0.1
osd_objectstore = memstore
memstore_device_bytes = $store_bytes
osd_memory_target = 1073741824

[client.rgw.gw]
rgw_data = $dir/rgw
log_file = $dir/log/\$cluster-\$name.log
rgw_frontends = beast endpoint=127.0.0.1:$rgw_port
# Buckets in the host name (virtual-host addressing) as BUCKET.localhost,
# which curl resolves to 127.0.0.1 by itself.
rgw_dns_name = localhost
EOF
}

make_keys() {
    ceph-authtool "$keyring" --create-keyring --gen-key -n mon. --cap mon 'allow *' >/dev/null
    ceph-authtool "$keyring" --gen-key -n client.admin --cap mon 'allow *' --cap osd 'allow *' \
        --cap mgr 'allow *' --cap mds 'allow *' >/dev/null
    ceph-authtool "$keyring" --gen-key -n mgr.x --cap mon 'allow profile mgr' --cap osd 'allow *' \
        --cap mds 'allow *' >/dev/null
    ceph-authtool "$keyring" --gen-key -n osd.0 --cap mon 'allow profile osd' --cap mgr 'allow profile osd' \
        --cap osd 'allow *' >/dev/null
    ceph-authtool "$keyring" --gen-key -n client.rgw.gw --cap mon 'allow rw' --cap osd 'allow rwx' \
        --cap mgr 'allow rw' >/dev/null
}

write_env() {
    local rgw_port=$1
    {
        echo "export CEPH_CONF=$conf"
        echo "export CEPH_KEYRING=$keyring"
        echo "export BRICKDISK_CEPH_POOL=$pool"
        if [ "$with_rgw" = 1 ]; then
            echo "export AWS_ENDPOINT_URL=http://127.0.0.1:$rgw_port"
            echo "export AWS_ACCESS_KEY_ID=$s3_access_key"
            echo "export AWS_SECRET_ACCESS_KEY=$s3_secret_key"
            echo "export AWS_DEFAULT_REGION=us-east-1"
        fi
    } >"$envfile"
}

# launch_rgw PORT: starts radosgw and waits until it answers on PORT.
launch_rgw() {
    local port=$1 i
    launch client.rgw.gw radosgw -n client.rgw.gw
    for ((i = 0; i < 240; i++)); do
        curl -fs -o /dev/null "http://127.0.0.1:$port/" && break
        sleep 0.25
    done
    curl -fs -o /dev/null "http://127.0.0.1:$port/" || fail "radosgw does not answer on port $port"
}

start_rgw() {
    launch_rgw "$1"
    timeout 60 radosgw-admin user create --uid=brickdisk --display-name=brickdisk \
        --access-key="$s3_access_key" --secret-key="$s3_secret_key" >"$dir/log/rgw-user.out" 2>&1 ||
        fail "cannot create the S3 user"
}

start_cluster() {
    if healthy; then
        cat "$envfile"
        return
    fi
    if [ -d "$dir" ] && [ ! -f "$conf" ] && [ -n "$(ls -A "$dir")" ]; then
        fail "$dir is not empty and holds no cluster: not touching it"
    fi
    stop_cluster >/dev/null
    mkdir -p "$dir"/{log,run,crash,mon,mgr/ceph-x,osd/ceph-0,rgw}

    local fsid osd_uuid mon_v2 mon_v1 rgw_port
    fsid=$(cat /proc/sys/kernel/random/uuid)
    osd_uuid=$(cat /proc/sys/kernel/random/uuid)
    mon_v2=$(free_port 3300)
    mon_v1=$(free_port 6789)
    rgw_port=$(free_port 7480)
    write_conf "$fsid" "$mon_v2" "$mon_v1" "$rgw_port"
    make_keys

    monmaptool --create --fsid "$fsid" --addv a "[v2:127.0.0.1:$mon_v2,v1:127.0.0.1:$mon_v1]" \
        "$dir/monmap" >/dev/null
    ceph-mon -c "$conf" --mkfs -i a --monmap "$dir/monmap" --keyring "$keyring" \
        >"$dir/log/mon-mkfs.out" 2>&1 || fail "the monitor's mkfs failed"
    launch mon.a ceph-mon -i a

    # The OSD's store is made while the monitor registers the OSD.
    (timeout 90 ceph --connect-timeout 60 osd new "$osd_uuid" 0 >"$dir/log/osd-new.out" 2>&1) &
    local register=$!
    ceph-osd -c "$conf" -i 0 --mkfs --osd-uuid "$osd_uuid" >"$dir/log/osd-mkfs.out" 2>&1 ||
        fail "the OSD's mkfs failed"
    wait "$register" || fail "cannot register the OSD"
    launch osd.0 ceph-osd -i 0
    launch mgr.x ceph-mgr -i x

    printf 'osd pool create %s 8 8\nosd pool application enable %s rados\n' "$pool" "$pool" |
        timeout 90 ceph --connect-timeout 60 >"$dir/log/pool-create.out" 2>&1 || fail "cannot create the pool"
    # The first write waits until the OSD is up and the pool's groups are active.
    echo probe | timeout 120 rados --client_mount_timeout 60 -p "$pool" put probe - ||
        fail "the pool never became writable"

    [ "$with_rgw" = 1 ] && start_rgw "$rgw_port"
    write_env "$rgw_port"
    cat "$envfile"
}

stop_cluster() {
    if [ -f "$pids" ]; then
        # One at a time, the last started first: the gateway and the manager
        # wait long in their shutdown for an OSD or monitor already gone.
        local name pid program
        tac "$pids" | while read -r name pid program; do stop_daemon "$name" "$pid" "$program"; done
        rm -f "$pids"
    fi
    release_ports
    case "$dir" in
    /tmp/?* | /var/tmp/?*) rm -rf "$dir" ;;
    *) [ -d "$dir" ] && echo "ceph-test-cluster: not removing $dir (outside /tmp)" >&2 ;;
    esac
    echo "ceph test cluster stopped"
}

rgw_port() { sed -n 's/^rgw_frontends = .*:\([0-9]*\)$/\1/p' "$conf"; }

# Stops radosgw alone (its line leaves the pid file); the rest keeps running.
stop_rgw() {
    [ -f "$pids" ] || fail "no running cluster in $dir"
    local name pid program
    while read -r name pid program; do
        [ "$name" = client.rgw.gw ] && stop_daemon "$name" "$pid" "$program"
    done <"$pids"
    sed -i '/^client\.rgw\.gw /d' "$pids"
}

restart_rgw() {
    [ -f "$pids" ] || fail "no running cluster in $dir"
    grep -q '^client\.rgw\.gw ' "$pids" && fail "radosgw runs already"
    launch_rgw "$(rgw_port)"
}

case "${1:-}" in
start) start_cluster ;;
stop) stop_cluster ;;
env) healthy && cat "$envfile" || fail "no running cluster in $dir" ;;
stop-rgw) stop_rgw ;;
start-rgw) restart_rgw ;;
*)
    echo "usage: $0 start|stop|env|stop-rgw|start-rgw" >&2
    exit 2
    ;;
esac
