#!/bin/sh
# Draws the button images from their SVG sources: NAME.png at 40x40 and NAME@2x.png at 80x80.
# Needs rsvg-convert (Debian: librsvg2-bin). Run it after a change to a source and commit both.
set -eu
cd "$(dirname "$0")"
for source in *.svg; do
  name=${source%.svg}
  rsvg-convert --width 40 --height 40 --output "../$name.png" "$source"
  rsvg-convert --width 80 --height 80 --output "../$name@2x.png" "$source"
done
