#!/usr/bin/env bash
# A real Slurm cluster on localhost: munged with a fresh key, slurmctld and
# slurmd in the foreground with a temporary slurm.conf, all under WORKDIR and
# stopped at the end. Submits the job array that `kagrid plan --slurm` wrote
# (WORKDIR/run.sh), waits for it, and merges into WORKDIR/mosaic.tif.
# Needs root (the daemons run as root here), as CI has.
# usage: slurm_cluster.sh KAGRID WORKDIR
set -euo pipefail
kagrid=$1 work=$2
cd "$work"
py=/usr/bin/python3
umask 077
mkdir -p munge slurm/state slurm/spool
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  sleep 0.5
  for p in "${pids[@]}"; do kill -9 "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
}
trap cleanup EXIT

dd if=/dev/urandom of=munge/munge.key bs=1024 count=1 status=none
chmod 400 munge/munge.key
munged --foreground --force --key-file="$work/munge/munge.key" --socket="$work/munge/munge.socket" \
  --pid-file="$work/munge/munged.pid" --log-file="$work/munge/munged.log" --seed-file="$work/munge/munged.seed" > munge/munged.out 2>&1 &
pids+=($!)
timeout 30 bash -c "until [ -S '$work/munge/munge.socket' ]; do sleep 0.1; done"

free_port() { $py -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'; }
host=$(hostname -s)
cpus=$(nproc)
cat > slurm/slurm.conf <<CONF
ClusterName=kagridtest
SlurmctldHost=$host(127.0.0.1)
SlurmUser=root
SlurmdUser=root
SlurmctldPort=$(free_port)
SlurmdPort=$(free_port)
AuthType=auth/munge
AuthInfo=socket=$work/munge/munge.socket
CredType=cred/munge
StateSaveLocation=$work/slurm/state
SlurmdSpoolDir=$work/slurm/spool
SlurmctldPidFile=$work/slurm/slurmctld.pid
SlurmdPidFile=$work/slurm/slurmd.pid
SlurmctldLogFile=$work/slurm/slurmctld.log
SlurmdLogFile=$work/slurm/slurmd.log
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
JobAcctGatherType=jobacct_gather/none
AccountingStorageType=accounting_storage/none
SchedulerType=sched/backfill
SelectType=select/cons_tres
SelectTypeParameters=CR_CPU
MpiDefault=none
ReturnToService=2
SlurmdTimeout=30
NodeName=$host NodeAddr=127.0.0.1 CPUs=$cpus State=UNKNOWN
PartitionName=tiles Nodes=$host Default=YES MaxTime=INFINITE State=UP
CONF
export SLURM_CONF=$work/slurm/slurm.conf
slurmctld -D -i > slurm/slurmctld.out 2>&1 &
pids+=($!)
slurmd -D -N "$host" > slurm/slurmd.out 2>&1 &
pids+=($!)
if ! timeout 60 bash -c "until sinfo -h -o '%T' 2>/dev/null | grep -qE '^(idle|mixed|allocated)'; do sleep 0.5; done"; then
  echo "the Slurm node did not come up"; tail -20 slurm/slurmctld.log slurm/slurmd.log 2>/dev/null; exit 1
fi
if ! timeout 300 sbatch --wait --quiet run.sh; then
  echo "the job array failed"; cat plan/slurm/*.log 2>/dev/null | tail -20; tail -20 slurm/slurmd.log; exit 1
fi
"$kagrid" merge plan mosaic.tif -q
