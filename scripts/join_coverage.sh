#!/usr/bin/env bash
# Joins the areas' tables tests/coverage/*.tsv into tests/COVERAGE.tsv.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
{
  printf 'operation\tbehaviour\ttest\n'
  cat tests/coverage/*.tsv | grep -v -e '^#' -e '^operation	behaviour' -e '^$' | LC_ALL=C sort -u
} >tests/COVERAGE.tsv
