#!/usr/bin/env bash
# The campaign test at a larger scale: more files, more steps of work through
# the view, more kills of the helper and of the view. Prints its figures
# (files checked and wrong, kills, how fast each view was back).
#
#   bash bench/helper_campaign.sh [FILES] [STEPS] [HELPER_KILLS] [VIEW_KILLS] [SEED] [BINDIR]
#
# Needs root (a private tmpfs, FUSE), like the test; its 256 MiB tmpfs holds
# about 6,000 files.
set -euo pipefail
bindir=$(realpath "${6:-build/bin}")
export ZEPHLORE_CAMPAIGN_FILES=${1:-5000} ZEPHLORE_CAMPAIGN_STEPS=${2:-1200}
export ZEPHLORE_CAMPAIGN_HELPER_KILLS=${3:-12} ZEPHLORE_CAMPAIGN_VIEW_KILLS=${4:-12} ZEPHLORE_CAMPAIGN_SEED=${5:-23}
out=$(mktemp)
trap 'rm -f "$out"' EXIT
status=0
"$bindir/cli_control_tests" --gtest_filter='HelperCampaignHeavy.*' >"$out" 2>&1 || status=$?
grep -E '^campaign:|Failure|^\[ +(OK|FAILED) +\]' "$out" || true
if ((status != 0)); then
  grep -A8 'Failure' "$out" | cut -c1-300 | head -60
fi
exit "$status"
