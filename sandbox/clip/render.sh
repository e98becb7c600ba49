#!/bin/sh
# render.sh FFMPEG landscape|portrait OUT.mp4 OUT.webm: renders eight seconds of a flying paper comet.
set -eu
ffmpeg=$1 orientation=$2 mp4=$3 webm=$4
art=$(dirname "$0")
width=854 height=480
[ "$orientation" = landscape ] || { width=480 height=854; }

# The sprites have premultiplied alpha.
still="loop=-1:1" # drawn once, shown in every frame
over=":alpha=premultiplied"
dim() { echo "scale=iw*$1:-1,colorchannelmixer=rr=$2:gg=$2:bb=$2:aa=$2"; }
scene="[0]scale=$width:$height*1.8,format=yuv420p,$still[sky];
[1]format=rgba,$still[stars];
[2]format=rgba,$still[hills];
[3]format=rgba,split=3[n][a][b];
[n]$still[near];
[a]$(dim 0.45 0.8),$still[mid];
[b]$(dim 0.28 0.65),$still[far];
[4][sky]overlay=shortest=1:y='(H-h)*(1-t/9)'[s0];
[s0][stars]overlay=x='-mod(t*14,300)':y='-mod(t*6,200)'$over[s1];
[s1][far]overlay=x='mod(t*95+120,W+w)-w':y='H*0.2+14*sin(t*1.9)'$over[s2];
[s2][mid]overlay=x='mod(t*170+40,W+w)-w':y='H*0.36+22*sin(t*1.4+1)'$over[s3];
[s3][hills]overlay=x='-mod(t*70,860)':y='H-h+10'$over[s4];
[s4][near]overlay=x='W*0.5-w*0.6+W*0.16*sin(t*0.9)':y='H*0.48-h/2+H*0.13*sin(t*1.7)'$over[picture]"

# A pentatonic arpeggio over a low fifth.
note="floor(mod(t/0.25\,5))"
tone="0.22*sin(2*PI*t*330*pow(2\,(3*$note+gte($note\,2)-gte($note\,4))/12))*exp(-7*mod(t\,0.25))"
sound="aevalsrc=$tone+0.05*sin(2*PI*110*t)+0.04*sin(2*PI*165*t):s=44100:d=8"

"$ffmpeg" -nostdin -loglevel error -y \
  -framerate 30 -i "$art/sky.svg" \
  -framerate 30 -i "$art/stars.svg" \
  -framerate 30 -i "$art/hills.svg" \
  -framerate 30 -i "$art/comet.svg" \
  -f lavfi -i "color=black:s=${width}x$height:r=30:d=8" \
  -f lavfi -i "$sound" \
  -filter_complex "$scene;[picture]split=2[p1][p2];[5]asplit=2[t1][t2]" \
  -map '[p1]' -map '[t1]' -t 8 -c:v libx264 -preset veryfast -crf 25 -pix_fmt yuv420p \
  -profile:v main -g 30 -c:a aac -b:a 96k -movflags +faststart "$mp4" \
  -map '[p2]' -map '[t2]' -t 8 -c:v libvpx -b:v 700k -deadline realtime -cpu-used 8 -g 30 \
  -pix_fmt yuv420p -c:a libvorbis -b:a 80k "$webm"
