#!/usr/bin/env bash
# A real Dask cluster on 127.0.0.1: a scheduler and two worker processes
# (no nanny, so a killed worker stays dead), started here and stopped at the
# end. Runs kagrid-dask over the plan in WORKDIR/plan, kills the worker that
# runs tile 0 while that tile's process is running, and checks that the tile
# was run again elsewhere. Then merges into WORKDIR/mosaic.vrt. Tile 0's first
# process never ends by itself, so the kill always lands mid-tile; with a real
# tile that could finish first, the check was a coin toss.
# usage: dask_cluster.sh KAGRID RUNNER WORKDIR
set -euo pipefail
kagrid=$1 runner=$2 work=$3
py=/usr/bin/python3
cd "$work"
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill -9 "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
}
trap cleanup EXIT

port=$($py -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
dask-scheduler --host 127.0.0.1 --port "$port" --no-dashboard > scheduler.log 2>&1 &
pids+=($!)
timeout 60 bash -c "until (exec 3<>/dev/tcp/127.0.0.1/$port) 2>/dev/null; do sleep 0.2; done"
declare -A worker
for w in 1 2; do
  dask-worker "tcp://127.0.0.1:$port" --nthreads 1 --no-nanny --no-dashboard --name "w$w" \
    --local-directory "$work/w$w" > "worker$w.log" 2>&1 &
  worker[$w]=$!
  pids+=($!)
done
$py -c "from distributed import Client; c = Client('tcp://127.0.0.1:$port', timeout=60); c.wait_for_workers(2, timeout=60); c.close()"

# Tile 0's first run hangs (kagrid tile PLANDIR INDEX ...); its run elsewhere is real.
printf '#!/usr/bin/env bash\nif [ "$3" = 0 ] && mkdir "%s/first-tile" 2>/dev/null; then exec sleep 600; fi\nexec "%s" "$@"\n' \
  "$work" "$kagrid" > hang-first.sh
chmod +x hang-first.sh
"$runner" plan --scheduler "tcp://127.0.0.1:$port" --kagrid "$work/hang-first.sh" --log "$work/tiles.log" --retries 3 -q &
run=$!
pids+=($run)
# The worker that started tile 0: freeze it, kill the tile's process and then
# the worker itself.
victim='' tile=''
for _ in $(seq 600); do
  if [ -s tiles.log ]; then
    read -r _ tile _ victim < <(grep '^start 0 ' tiles.log | head -1)
    if pgrep -P "$victim" > /dev/null; then break; fi
  fi
  sleep 0.05
done
[ -n "$victim" ] || { echo "no tile started"; exit 1; }
[ "$victim" = "${worker[1]}" ] || [ "$victim" = "${worker[2]}" ] || { echo "tile ran outside the workers"; exit 1; }
kill -STOP "$victim"
child=$(pgrep -P "$victim" || true)
[ -n "$child" ] || { echo "the tile ended before the kill"; exit 1; }
kill -9 $child
kill -9 "$victim"
echo "killed worker $victim while tile $tile ran (process $child)"
wait "$run"
grep -q "^done $tile " tiles.log || { echo "tile $tile was not run again"; cat tiles.log; exit 1; }
if grep -q "^done $tile .* $victim\$" tiles.log; then echo "the killed worker finished tile $tile"; exit 1; fi
"$kagrid" merge plan mosaic.vrt -q
