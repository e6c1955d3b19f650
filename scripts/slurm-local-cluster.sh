#!/usr/bin/env bash
# A private one-node Slurm cluster that lives entirely inside one folder, for
# trying and testing sweeps on this machine without touching a system Slurm.
#
#   bash scripts/slurm-local-cluster.sh start DIR   # munged, slurmctld, slurmd; waits for the node
#   bash scripts/slurm-local-cluster.sh env DIR     # prints what clients need: eval "$(... env DIR)"
#   bash scripts/slurm-local-cluster.sh stop DIR    # cancels its jobs, stops the daemons by pid
#
# DIR gets its own munge key and socket, a generated slurm.conf (this host as
# controller and as the only node, with all its CPUs and memory, one default
# partition `main`), state, spool, logs and pid files. The TCP ports are picked
# free at start, so two such clusters, or a system Slurm, never collide.
# LOCAL_CLUSTER_WAIT (seconds, default 60) bounds the wait for the node.
set -euo pipefail

name=$(basename "$0")
fail() {
  echo "$name: $*" >&2
  exit 1
}
usage() {
  echo "usage: $name start|stop|env DIR" >&2
  exit 2
}

[ $# -eq 2 ] || usage
action=$1
dir=$2

require() {
  local tool
  for tool in "$@"; do
    command -v "$tool" >/dev/null 2>&1 ||
      fail "$tool not found: install the Debian packages slurm-wlm and munge (scripts/install-deps.sh)"
  done
}

# The pid in a pid file when that process is still the daemon named, else nothing.
# Checking the name keeps a recycled pid from being taken for the daemon.
live_pid() {
  local file=$1 daemon=$2 pid
  [ -s "$file" ] || return 0
  pid=$({ tr -dc 0-9 <"$file"; } 2>/dev/null)
  [ -n "$pid" ] && [ "$(cat "/proc/$pid/comm" 2>/dev/null)" = "$daemon" ] || return 0
  # A daemon that has exited but not yet been reaped is gone all the same.
  [ "$(awk '{print $3}' "/proc/$pid/stat" 2>/dev/null)" != Z ] && echo "$pid"
  return 0
}

# Stops one daemon by its pid file: TERM, up to 10 s for it to go, then KILL.
stop_daemon() {
  local file=$1 daemon=$2 pid i
  pid=$(live_pid "$file" "$daemon")
  [ -n "$pid" ] || return 0
  kill -TERM "$pid" 2>/dev/null || return 0
  for ((i = 0; i < 100; i++)); do
    [ -n "$(live_pid "$file" "$daemon")" ] || return 0
    sleep 0.1
  done
  echo "$name: $daemon (pid $pid) ignored TERM for 10 s; killing it" >&2
  kill -KILL "$pid" 2>/dev/null || true
}

log_tails() {
  local log
  for log in "$dir/munge/munged.log" "$dir/log/slurmctld.log" "$dir/log/slurmd.log"; do
    [ -f "$log" ] || continue
    echo "---- last lines of $log" >&2
    tail -n 25 "$log" >&2
  done
}

stop_all() {
  local conf=$dir/slurm.conf
  if [ -n "$(live_pid "$dir/run/slurmctld.pid" slurmctld)" ]; then
    # Jobs left running would keep their step daemons alive after slurmd goes.
    export SLURM_CONF=$conf
    timeout 10 scancel --user="$(id -un)" 2>/dev/null || true
    local i
    for ((i = 0; i < 100; i++)); do
      [ -z "$(timeout 5 squeue --noheader 2>/dev/null)" ] && break
      sleep 0.1
    done
  fi
  stop_daemon "$dir/run/slurmd.pid" slurmd
  stop_daemon "$dir/run/slurmctld.pid" slurmctld
  stop_daemon "$dir/munge/munged.pid" munged
}

# Two distinct TCP ports that nothing listens on, below the kernel's range for
# outgoing connections so that no client socket takes them before the daemons do.
free_ports() {
  perl -MIO::Socket::INET -e '
    my (%tried, @ports);
    while (@ports < 2 && keys(%tried) < 2000) {
      my $port = 20000 + int(rand(12000));
      next if $tried{$port}++;
      my $socket = IO::Socket::INET->new(LocalAddr => "0.0.0.0", LocalPort => $port,
                                         Proto => "tcp", Listen => 1) or next;
      close $socket;
      push @ports, $port;
    }
    die "no free TCP port found between 20000 and 32000\n" if @ports < 2;
    print "@ports\n";'
}

# munged refuses a socket whose folders are not searchable by every user.
check_searchable() {
  local path=$1 others
  while [ "$path" != / ]; do
    others=$(stat -c %A "$path" | cut -c10)
    if [ "$others" != x ] && [ "$others" != t ]; then
      fail "munged needs every folder above its socket to be searchable by all users, and $path is not: chmod o+x $path, or choose a folder under /tmp"
    fi
    path=$(dirname "$path")
  done
}

start() {
  require munged mungekey slurmctld slurmd sinfo squeue scancel perl
  mkdir -p "$dir"
  dir=$(cd "$dir" && pwd -P)
  # The longest socket slurmd makes (spool/NODE_JOB.STEP) must fit a Unix socket path (108 bytes).
  [ ${#dir} -le 60 ] || fail "$dir is too long for the daemons' sockets (at most 60 characters): choose a shorter folder"
  for daemon in munged slurmctld slurmd; do
    pidfile=$dir/run/$daemon.pid
    [ "$daemon" = munged ] && pidfile=$dir/munge/munged.pid
    [ -z "$(live_pid "$pidfile" "$daemon")" ] || fail "a cluster is already running in $dir ($daemon); stop it first"
  done

  local started user host node node_line ports ctld_port slurmd_port wait_s
  started=$(date +%s%N)
  user=$(id -un)
  host=$(hostname -s)
  wait_s=${LOCAL_CLUSTER_WAIT:-60}

  # DIR itself is ours to open up; the folders above it are only checked.
  chmod a+x "$dir"
  check_searchable "$dir"
  mkdir -p "$dir/state" "$dir/spool" "$dir/log" "$dir/run"
  mkdir -p "$dir/munge"
  chmod 0755 "$dir/munge"
  rm -f "$dir/munge/munge.key"
  mungekey --create --keyfile="$dir/munge/munge.key"
  chmod 0600 "$dir/munge/munge.key"

  # This machine as Slurm sees it: CPUs, sockets, cores and memory.
  node_line=$(slurmd -C | head -n 1)
  case $node_line in
    NodeName=*) ;;
    *) fail "slurmd -C did not describe this machine: $node_line" ;;
  esac
  node=${node_line%% *}
  node=${node#NodeName=}
  ports=$(free_ports)
  read -r ctld_port slurmd_port <<<"$ports"

  : >"$dir/plugstack.conf"
  cat >"$dir/slurm.conf" <<EOF
# A private one-node cluster made by $name; everything it writes is in $dir.
ClusterName=local
SlurmctldHost=$host(127.0.0.1)
SlurmctldPort=$ctld_port
SlurmdPort=$slurmd_port
SlurmUser=$user
SlurmdUser=$user
AuthType=auth/munge
CredType=cred/munge
# Clients and daemons reach this cluster's own munged, not the system one.
AuthInfo=socket=$dir/munge/munge.socket
StateSaveLocation=$dir/state
SlurmdSpoolDir=$dir/spool
SlurmctldPidFile=$dir/run/slurmctld.pid
SlurmdPidFile=$dir/run/slurmd.pid
SlurmctldLogFile=$dir/log/slurmctld.log
SlurmdLogFile=$dir/log/slurmd.log
PlugStackConfig=$dir/plugstack.conf
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
MpiDefault=none
AccountingStorageType=accounting_storage/none
JobAcctGatherType=jobacct_gather/none
JobCompType=jobcomp/none
# Cores, not whole nodes, are allocated, so tasks of an array share the node.
SelectType=select/cons_tres
SelectTypeParameters=CR_Core
# A request no node can meet is refused at submission rather than left pending for ever.
EnforcePartLimits=ALL
ReturnToService=2
SlurmctldTimeout=10
SlurmdTimeout=10
MessageTimeout=5
InactiveLimit=0
KillWait=2
MailProg=/bin/true
# sbatch --wait sleeps 2 s, then four times as long while that stays under half
# of MinJobAge: with 16 it polls 2 s and then every 8 s, so the end of a job is
# seen within seconds and the finished job's record outlives the next poll.
MinJobAge=16
# A pass every second starts the next tasks of an array as soon as cores free up.
SchedulerParameters=sched_interval=1
$node_line NodeAddr=127.0.0.1 State=UNKNOWN
PartitionName=main Nodes=ALL Default=YES MaxTime=INFINITE State=UP
EOF

  local ok=1 why=""
  munged --socket="$dir/munge/munge.socket" --key-file="$dir/munge/munge.key" \
    --pid-file="$dir/munge/munged.pid" --log-file="$dir/munge/munged.log" \
    --seed-file="$dir/munge/munged.seed" 2>>"$dir/log/start.err" || { ok=0 why="munged did not start"; }
  # A fresh controller (-c): a restart in the same folder begins without the old jobs, as a first start does.
  if [ $ok = 1 ]; then
    slurmctld -c -f "$dir/slurm.conf" 2>>"$dir/log/start.err" || { ok=0 why="slurmctld did not start"; }
  fi
  if [ $ok = 1 ]; then
    slurmd -f "$dir/slurm.conf" -N "$node" 2>>"$dir/log/start.err" || { ok=0 why="slurmd did not start"; }
  fi

  local state="" deadline
  deadline=$(($(date +%s) + wait_s))
  export SLURM_CONF=$dir/slurm.conf
  while [ $ok = 1 ]; do
    state=$(timeout 5 sinfo --noheader --node="$node" --format=%T 2>/dev/null || true)
    [ "$state" = idle ] && break
    if [ -z "$(live_pid "$dir/run/slurmctld.pid" slurmctld)" ]; then
      ok=0 why="slurmctld stopped"
    elif [ -z "$(live_pid "$dir/run/slurmd.pid" slurmd)" ]; then
      ok=0 why="slurmd stopped"
    elif [ "$(date +%s)" -ge "$deadline" ]; then
      ok=0 why="the node was not idle within $wait_s s (state: ${state:-unknown})"
    else
      sleep 0.2
    fi
  done
  if [ $ok = 0 ]; then
    echo "$name: the cluster in $dir did not come up: $why" >&2
    if [ -s "$dir/log/start.err" ]; then
      echo "---- daemons' start errors" >&2
      cat "$dir/log/start.err" >&2
    fi
    log_tails
    stop_all
    exit 1
  fi
  local ms=$((($(date +%s%N) - started) / 1000000))
  printf '%s: node %s idle after %d.%02d s; controller on port %s; clients: eval "$(bash %s env %s)"\n' \
    "$name" "$node" $((ms / 1000)) $((ms % 1000 / 10)) "$ctld_port" "$0" "$dir"
}

case $action in
  start)
    start
    ;;
  stop)
    [ -d "$dir" ] || fail "$dir: no such folder"
    dir=$(cd "$dir" && pwd -P)
    stop_all
    ;;
  env)
    [ -f "$dir/slurm.conf" ] || fail "$dir/slurm.conf not found: start a cluster there first"
    dir=$(cd "$dir" && pwd -P)
    printf 'export SLURM_CONF=%q\n' "$dir/slurm.conf"
    ;;
  *)
    usage
    ;;
esac
