#!/usr/bin/env bash
# Holds the #include lines against the direction of the modules: common <- dataset, fingerprint,
# serializer <- pipeline; none of them reaches into host/; the exported headers include exported
# headers only; codec, engine, replicator and capture stand on them as any stranger would, in this order;
# examples and benchmarks are strangers. Also: every test source is in a folder that
# the build takes its tests from.
#
# usage: includes_test.sh SOURCE_DIR
set -euo pipefail
cd "$1"
failed=0

allow() {  # FOLDER PATTERN: what files of FOLDER may include of the project
  local hits
  hits=$(grep -rnE '^#include "' "$1" --include='*.h' --include='*.cpp' |
    grep -vE "#include \"($2)" || true)
  if [[ -n $hits ]]; then
    echo "FAIL: $1 may include only $2:"
    echo "$hits"
    failed=1
  else
    echo "ok: $1"
  fi
}

allow include 'penstock/'
allow common 'penstock/|common/'
allow fingerprint 'penstock/|common/|fingerprint/'
allow serializer 'penstock/|common/|serializer/'
allow dataset 'penstock/|common/|dataset/'
allow pipeline 'penstock/|common/|dataset/dataset_type\.h|pipeline/'
allow host 'penstock/|host/'
allow codec 'penstock/|codec/'
allow engine 'penstock/|codec/|engine/'
allow replicator 'penstock/|codec/|engine/|replicator/|capture/'
allow capture 'penstock/|codec/|engine/|replicator/|capture/'
allow bench 'penstock/|bench/|codec/|engine/|replicator/'
allow examples 'penstock/|examples/|minimal_host/'

# Live capture stands on the adapters; of the program only the subcommands know it.
above=$(grep -rlE '^#include "capture/' replicator | grep -v '^replicator/cmd_' || true)
if [[ -n $above ]]; then
  echo "FAIL: only subcommands may include capture/: $above"
  failed=1
else
  echo "ok: only subcommands know live capture"
fi

stray=$(find tests -name '*_test.cpp' | grep -vE \
  '^tests/(capture|codec|common|dataset|engine|fingerprint|host|misuse|pipeline|replicator|serializer|trace)/[a-z0-9_]+_test\.cpp$' ||
  true)
if [[ -n $stray ]]; then
  echo "FAIL: no program is built from these tests: $stray"
  failed=1
else
  echo "ok: every test source is built"
fi
exit $failed
