#!/usr/bin/env bash
# tern-get's media side, timed on loopback:
# 1. `-F` on a master of five variants whose sizes the playlists give: how many media segments it
#    requests (nginx's access log; the target is none).
# 2. `-F` on a page linking eight plain files of unknown size against a page linking one, served
#    by a server that answers every request after DELAY seconds: the sizes are measured at once
#    when eight take at most 1.5 times as long as one.
# 3. A version with separate video and audio, fetched and merged by tern-get, against fetching the
#    two tracks with tern-get and merging them with one `ffmpeg -c copy` by hand (target: at most
#    1.1 times the sum).
#   bench/host/media-downloads.sh BUILD-DIR [WORK-DIR] [RUNS]
# Needs: ffmpeg nginx python3 bc.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
build="$(cd "${1:?build dir}" && pwd)"
work="${2:-/tmp/terncl-media-bench}"
runs="${3:-3}"
tern_get="$build/host/tern-get"
mkdir -p "$work"
cd "$work"

if [ ! -f www/hls/master.m3u8 ]; then
  echo "Making a 120 s stream: five video variants as single files, audio apart..."
  mkdir -p www/hls
  heights=(144 240 360 480 720)
  for h in "${heights[@]}"; do
    ffmpeg -hide_banner -loglevel error -y -f lavfi -i "testsrc2=size=$((h * 16 / 9 / 2 * 2))x$h:rate=25" \
      -t 120 -c:v libx264 -preset ultrafast -b:v "$((h * 4))k" -g 50 -sc_threshold 0 \
      -f hls -hls_time 2 -hls_playlist_type vod -hls_flags single_file "www/hls/v$h.m3u8"
  done
  ffmpeg -hide_banner -loglevel error -y -f lavfi -i sine=frequency=440 -t 120 -c:a aac -b:a 128k \
    -f hls -hls_time 2 -hls_playlist_type vod -hls_segment_filename 'www/hls/a_%03d.ts' www/hls/a.m3u8
  {
    echo '#EXTM3U'
    echo '#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="aud",LANGUAGE="en",NAME="en",DEFAULT=YES,URI="a.m3u8"'
    for h in "${heights[@]}"; do
      echo "#EXT-X-STREAM-INF:BANDWIDTH=$((h * 4000 + 128000)),RESOLUTION=$((h * 16 / 9 / 2 * 2))x$h,CODECS=\"avc1.42c01e,mp4a.40.2\",AUDIO=\"aud\""
      echo "v$h.m3u8"
    done
  } > www/hls/master.m3u8
  mkdir -p www/files
  for i in 1 2 3 4 5 6 7 8; do head -c $((i * 100000)) /dev/urandom > "www/files/f$i.mp4"; done
  printf '<html><body><a href="f1.mp4">one</a></body></html>' > www/files/one.html
  {
    printf '<html><body>'
    for i in 1 2 3 4 5 6 7 8; do printf '<a href="f%d.mp4">%d</a>' "$i" "$i"; done
    printf '</body></html>'
  } > www/files/eight.html
fi

free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }
port=$(free_port)
mkdir -p logs temp
cat > nginx.conf <<CONF
daemon off; master_process off; worker_processes 1; pid $work/nginx.pid; error_log $work/logs/error.log;
events { worker_connections 64; }
http { access_log $work/logs/access.log; sendfile on; keepalive_requests 10000;
  types { application/vnd.apple.mpegurl m3u8; video/mp2t ts; text/html html; video/mp4 mp4; }
  client_body_temp_path $work/temp/b; proxy_temp_path $work/temp/p; fastcgi_temp_path $work/temp/f;
  uwsgi_temp_path $work/temp/u; scgi_temp_path $work/temp/s;
  server { listen 127.0.0.1:$port; root $work/www; location / { } } }
CONF
nginx -p "$work" -e "$work/logs/error.log" -c "$work/nginx.conf" &
nginx_pid=$!
slow_port=$(free_port)
delay=0.5
python3 "$here/slowserver.py" "$work/www" "$slow_port" "$delay" &
slow_pid=$!
trap 'kill $nginx_pid $slow_pid 2>/dev/null || true' EXIT
sleep 0.5
base="http://127.0.0.1:$port"

echo "1. tern-get -F on a master of five variants whose playlists give the sizes:"
: > logs/access.log
"$tern_get" -F "$base/hls/master.m3u8" --state-dir "$work/state" | sed 's/^/   /'
echo "   requests: $(wc -l < logs/access.log), of media segments: $(grep -cE '\.ts |v[0-9]+\.ts' logs/access.log || true)"

median() { sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
seconds() { # command... -> wall time of the median run
  local times=()
  for _ in $(seq "$runs"); do
    rm -rf out state && mkdir -p out
    local start end
    start=$(date +%s.%N)
    "$@" > /dev/null 2>&1 || { echo "failed: $*" >&2; }
    end=$(date +%s.%N)
    times+=("$(echo "$end - $start" | bc)")
  done
  printf '%s\n' "${times[@]}" | median
}

echo
echo "2. Sizes measured at once (every answer after ${delay} s), median of $runs runs:"
slow="http://127.0.0.1:$slow_port/files"
one=$(seconds "$tern_get" -F "$slow/one.html" --state-dir state)
eight=$(seconds "$tern_get" -F "$slow/eight.html" --state-dir state)
printf '   one unsized file: %.3f s, eight: %.3f s, eight / one = %.2f (target <= 1.5)\n' \
  "$one" "$eight" "$(echo "scale=3; $eight / $one" | bc)"

echo
echo "3. Separate video and audio merged, median of $runs runs:"
merged=$(seconds "$tern_get" -f "bestvideo+bestaudio" "$base/hls/master.m3u8" -o out/m.mp4 \
  --state-dir state)
video=$(seconds "$tern_get" "$base/hls/v720.m3u8" -o out/v.ts --state-dir state)
audio=$(seconds "$tern_get" "$base/hls/a.m3u8" -o out/a.ts --state-dir state)
"$tern_get" "$base/hls/v720.m3u8" -o "$work/v.ts" --state-dir "$work/state-v" > /dev/null 2>&1 || true
"$tern_get" "$base/hls/a.m3u8" -o "$work/a.ts" --state-dir "$work/state-a" > /dev/null 2>&1 || true
merge=$(seconds ffmpeg -hide_banner -loglevel error -y -i "$work/v.ts" -i "$work/a.ts" \
  -map 0:v -map 1:a -c copy out/m.mp4)
sum=$(echo "$video + $audio + $merge" | bc)
printf '   tern-get merged: %.3f s; video %.3f + audio %.3f + ffmpeg merge %.3f = %.3f s\n' \
  "$merged" "$video" "$audio" "$merge" "$sum"
printf '   merged / sum = %.2f (target <= 1.1)\n' "$(echo "scale=3; $merged / $sum" | bc)"
