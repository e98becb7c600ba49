#!/usr/bin/env bash
# examples.sh BIN NAME CLICK_INTERSTITIAL CLICK_REWARDED: plays both formats in example-NAME with real
# input against a sandbox server, under a window manager, and looks at what the server received.
# A CLICK is "x y" in the example's window, or a key.
