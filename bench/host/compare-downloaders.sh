#!/usr/bin/env bash
# tern-get against other downloaders on the same stream, served by nginx on loopback:
# 500 segments of about 200 KiB, wall time of each program (median of RUNS), then speed-limit
# accuracy of tern-get, curl and aria2c at 2 MiB/s over 20 s.
#   bench/host/compare-downloaders.sh BUILD-DIR [WORK-DIR] [RUNS]
# With a build configured with -DTERNCL_BUILD_BENCH=ON it also times bench_qnamsequential, plain
# QNetworkAccessManager fetching the same URLs, for comparison with the libcurl engine.
# Besides wall time it reports user+sys CPU time per MiB of each program.
# Needs: ffmpeg nginx curl aria2 yt-dlp python3 time bc (scripts/install-deps --bench).
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
build="$(cd "${1:?build dir}" && pwd)"
work="${2:-/tmp/terncl-bench}"
runs="${3:-3}"
tern_get="$build/host/tern-get"
mkdir -p "$work"
cd "$work"

if [ ! -f www/s/index.m3u8 ]; then
  echo "Making 500 segments of 1 s at a constant 1.6 Mbit/s..."
  mkdir -p www/s
  ffmpeg -hide_banner -loglevel error -y -f lavfi -i testsrc2=size=640x360:rate=25 \
    -f lavfi -i sine=frequency=440 -t 500 -c:v libx264 -preset ultrafast \
    -b:v 1500k -minrate 1500k -maxrate 1500k -bufsize 750k -x264-params nal-hrd=cbr \
    -force_key_frames 'expr:gte(t,n_forced*1)' -c:a aac -b:a 128k \
    -f hls -hls_time 1 -hls_playlist_type vod -hls_segment_filename 'www/s/seg_%04d.ts' www/s/index.m3u8
fi
segments=$(grep -vc '^#' www/s/index.m3u8)
bytes=$(cd www/s && grep -v '^#' index.m3u8 | xargs cat | wc -c)
echo "Stream: $segments segments, $((bytes / 1024 / segments)) KiB on average, $((bytes / 1048576)) MiB"

port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
mkdir -p logs temp
cat > nginx.conf <<CONF
daemon off; master_process off; worker_processes 1; pid $work/nginx.pid; error_log $work/logs/error.log;
events { worker_connections 64; }
http { access_log off; sendfile on; keepalive_requests 10000;
  client_body_temp_path $work/temp/b; proxy_temp_path $work/temp/p; fastcgi_temp_path $work/temp/f;
  uwsgi_temp_path $work/temp/u; scgi_temp_path $work/temp/s;
  server { listen 127.0.0.1:$port; root $work/www; location / { } } }
CONF
nginx -p "$work" -e "$work/logs/error.log" -c "$work/nginx.conf" &
nginx_pid=$!
trap 'kill $nginx_pid 2>/dev/null || true' EXIT
sleep 0.5
url="http://127.0.0.1:$port/s/index.m3u8"
grep -v '^#' www/s/index.m3u8 | sed "s|^|http://127.0.0.1:$port/s/|" > urls.txt

median() { sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
mib=$(echo "scale=3; $bytes / 1048576" | bc)
timeit() { # name command...
  local name=$1; shift
  local times=() cpus=()
  for _ in $(seq "$runs"); do
    rm -rf out state && mkdir -p out
    # User and system time include the children a program waits for (curl under sh).
    /usr/bin/time -f '%e %U %S' -o time.txt "$@" > /dev/null 2>&1 || { echo "$name failed" >&2; return 0; }
    times+=("$(awk 'END {print $1}' time.txt)")
    cpus+=("$(awk 'END {print $2 + $3}' time.txt)")
  done
  local m c
  m=$(printf '%s\n' "${times[@]}" | median)
  c=$(printf '%s\n' "${cpus[@]}" | median)
  printf '%-34s %8.3f s  CPU %7.3f s  %6.2f ms CPU/MiB\n' "$name" "$m" "$c" \
    "$(echo "scale=3; $c * 1000 / $mib" | bc)"
  echo "$name|$m|$c" >> results.txt
}
rm -f results.txt
echo
echo "Wall time and user+sys CPU, median of $runs runs:"
timeit "tern-get -N 1" "$tern_get" "$url" -o out/s.ts --state-dir state -N 1
timeit "tern-get (default -N)" "$tern_get" "$url" -o out/s.ts --state-dir state
timeit "curl (one connection, sequential)" sh -c "curl -s \$(cat urls.txt) > out/s.ts"
if [ -x "$build/bench/bench_qnamsequential" ]; then
  timeit "QNetworkAccessManager alone" "$build/bench/bench_qnamsequential" urls.txt out/s.ts
fi
timeit "ffmpeg -c copy" ffmpeg -hide_banner -loglevel error -y -i "$url" -c copy out/s.ts
if command -v yt-dlp > /dev/null; then
  timeit "yt-dlp (one fragment at a time)" yt-dlp --no-progress --concurrent-fragments 1 \
    --hls-prefer-native -o out/s.ts "$url"
fi
if command -v aria2c > /dev/null; then
  timeit "aria2c (one connection)" aria2c -q -i urls.txt -d out -j1 -x1 -s1 --allow-overwrite=true
fi
field() { awk -F'|' -v n="$1" -v f="$2" '$1 == n {print $f}' results.txt; }
tern=$(field "tern-get -N 1" 2)
curl_time=$(field "curl (one connection, sequential)" 2)
echo "tern-get -N 1 / curl, wall time = $(echo "scale=3; $tern / $curl_time" | bc)"
echo "tern-get -N 1 / curl, user+sys = $(echo "scale=3; $(field "tern-get -N 1" 3) / $(field "curl (one connection, sequential)" 3)" | bc)"
floor=$(field "QNetworkAccessManager alone" 2)
if [ -n "$floor" ]; then
  echo "QNetworkAccessManager alone / curl = $(echo "scale=3; $floor / $curl_time" | bc)"
fi

echo
echo "Speed limit 2 MiB/s, one-second windows after the first two, 20 s:"
limit=$((2 * 1048576))
rm -rf out state && mkdir -p out
echo "tern-get --limit-rate 2M:"
python3 "$here/ratewindows.py" 20 $limit out/s.ts.part out/s.ts -- \
  "$tern_get" "$url" -o out/s.ts --state-dir state --limit-rate 2M
rm -rf out && mkdir -p out
echo "curl --limit-rate 2M:"
python3 "$here/ratewindows.py" 20 $limit out/s.ts -- \
  sh -c "curl -s --limit-rate 2M \$(cat urls.txt) > out/s.ts"
if command -v aria2c > /dev/null; then
  rm -rf out && mkdir -p out
  echo "aria2c --max-download-limit=2M:"
  python3 "$here/ratewindows.py" 20 $limit out -- \
    aria2c -q -i "$work/urls.txt" -d out -j1 -x1 -s1 --max-download-limit=2M
fi
