#!/usr/bin/env bash
# Segments fetched at once, on loopback:
#  1. wall time of tern-get -N 1 and -N 8, aria2c -j 8 and yt-dlp -N 8 on one list of 120
#     segments of about 200 KiB, from a server that caps every connection at 2 MiB/s
#     (cappedserver.py), then from nginx with limit_rate 2m (median of RUNS);
#  2. peak resident memory of tern-get -N 8 on 1 MiB segments (/usr/bin/time -v);
#  3. the speed limit with -N 8: tern-get --limit-rate 2M, one-second windows.
#   bench/host/parallel-segments.sh BUILD-DIR [WORK-DIR] [RUNS]
# Needs: ffmpeg nginx aria2 yt-dlp time python3 bc (scripts/install-deps --bench).
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
build="$(cd "${1:?build dir}" && pwd)"
work="${2:-/tmp/terncl-parallel-bench}"
runs="${3:-3}"
tern_get="$build/host/tern-get"
cap=$((2 * 1048576))
mkdir -p "$work"
cd "$work"

make_stream() { # folder seconds video-bitrate: 1-second segments at a constant bit rate
  [ -f "www/$1/index.m3u8" ] && return
  echo "Making $2 segments at $3 of video in www/$1..."
  mkdir -p "www/$1"
  ffmpeg -hide_banner -loglevel error -y -f lavfi -i testsrc2=size=640x360:rate=25 \
    -f lavfi -i sine=frequency=440 -t "$2" -c:v libx264 -preset ultrafast \
    -b:v "$3" -minrate "$3" -maxrate "$3" -bufsize 750k -x264-params nal-hrd=cbr \
    -force_key_frames 'expr:gte(t,n_forced*1)' -c:a aac -b:a 128k \
    -f hls -hls_time 1 -hls_playlist_type vod -hls_segment_filename "www/$1/seg_%04d.ts" \
    "www/$1/index.m3u8"
}
make_stream s 120 1500k
make_stream big 30 8200k
bytes=$(cd www/s && grep -v '^#' index.m3u8 | xargs cat | wc -c)
big_bytes=$(cd www/big && grep -v '^#' index.m3u8 | xargs cat | wc -c)
echo "Streams: 120 segments, $((bytes / 1024 / 120)) KiB on average, $((bytes / 1048576)) MiB;" \
  "30 segments, $((big_bytes / 1024 / 30)) KiB on average"

free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }
pids=()
trap 'kill "${pids[@]}" 2>/dev/null || true' EXIT
wait_port() { for _ in $(seq 50); do (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null && return; sleep 0.1; done; }

capped_port=$(free_port)
python3 "$here/cappedserver.py" www "$capped_port" "$cap" &
pids+=($!)
nginx_port=$(free_port)
mkdir -p logs temp
cat > nginx.conf <<CONF
daemon off; master_process off; worker_processes 1; pid $work/nginx.pid; error_log $work/logs/error.log;
events { worker_connections 64; }
http { access_log off; sendfile on; keepalive_requests 10000;
  client_body_temp_path $work/temp/b; proxy_temp_path $work/temp/p; fastcgi_temp_path $work/temp/f;
  uwsgi_temp_path $work/temp/u; scgi_temp_path $work/temp/s;
  server { listen 127.0.0.1:$nginx_port; root $work/www; location /s/ { limit_rate 2m; } } }
CONF
nginx -p "$work" -e "$work/logs/error.log" -c "$work/nginx.conf" &
pids+=($!)
wait_port "$capped_port"
wait_port "$nginx_port"

median() { sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
timeit() { # name command...: prints and records the median wall time
  local name=$1; shift
  local times=()
  for _ in $(seq "$runs"); do
    rm -rf out state && mkdir -p out
    local start end
    start=$(date +%s.%N)
    "$@" > /dev/null 2>&1 || { echo "$name failed" >&2; return 0; }
    end=$(date +%s.%N)
    times+=("$(echo "$end - $start" | bc)")
  done
  local m
  m=$(printf '%s\n' "${times[@]}" | median)
  printf '  %-26s %7.2f s  %6.1f MiB/s\n' "$name" "$m" "$(echo "$bytes / $m / 1048576" | bc -l)"
  echo "$name $m" >> results.txt
}
compare() { # server port
  local url="http://127.0.0.1:$2/s/index.m3u8"
  grep -v '^#' www/s/index.m3u8 | sed "s|^|http://127.0.0.1:$2/s/|" > urls.txt
  rm -f results.txt
  echo
  echo "$1, median of $runs runs:"
  timeit "tern-get -N 1" "$tern_get" "$url" -o out/s.ts --state-dir state -N 1
  timeit "tern-get -N 8" "$tern_get" "$url" -o out/s.ts --state-dir state -N 8
  timeit "aria2c -j 8" aria2c -q -i urls.txt -d out -j8 -x1 -s1 --allow-overwrite=true
  timeit "yt-dlp -N 8" yt-dlp --no-progress --concurrent-fragments 8 --hls-prefer-native \
    -o out/s.ts "$url"
  local tern aria ytdlp
  tern=$(awk '/^tern-get -N 8 /{print $NF}' results.txt)
  aria=$(awk '/^aria2c /{print $NF}' results.txt)
  ytdlp=$(awk '/^yt-dlp /{print $NF}' results.txt)
  echo "  tern-get -N 8 reaches $(echo "scale=1; 100 * $bytes / $tern / (8 * $cap)" | bc)% of" \
    "8 x 2 MiB/s (target 90%); time / aria2c = $(echo "scale=2; $tern / $aria" | bc)," \
    "time / yt-dlp = $(echo "scale=2; $tern / $ytdlp" | bc) (target at most 1)"
}
compare "Server capping each connection at 2 MiB/s (cappedserver.py)" "$capped_port"
compare "nginx limit_rate 2m (each request may send a second's worth at once: 200 KiB segments are not capped)" \
  "$nginx_port"

echo
echo "Peak resident memory on 1 MiB segments from nginx without a cap (target at most 64 MiB):"
for n in 1 8; do
  rm -rf out state
  /usr/bin/time -v "$tern_get" "http://127.0.0.1:$nginx_port/big/index.m3u8" -o out/big.ts \
    --state-dir state -N "$n" 2> time.txt > /dev/null
  echo "  tern-get -N $n: $(awk -F': ' '/Maximum resident/{printf "%.1f MiB", $2 / 1024}' time.txt)"
done

echo
echo "Speed limit 2 MiB/s with -N 8, one-second windows after the first two, 10 s (target: all" \
  "within 5%):"
rm -rf out state && mkdir -p out
python3 "$here/ratewindows.py" 10 $cap out -- \
  "$tern_get" "http://127.0.0.1:$nginx_port/s/index.m3u8" -o out/s.ts --state-dir state \
  -N 8 --limit-rate 2M
