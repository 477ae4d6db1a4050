# Shared by the demo and the macro benchmark, which each build an agent and a world namespace.
# Sourced after AGENT, WORLD, PIDS and WORK are set; stops everything started in the namespaces,
# then removes them and the work directory.
lab_cleanup() {
  set +e
  for pid in "${PIDS[@]}"; do kill "$pid" 2>/dev/null; done
  # Whatever else runs in the namespaces was started by this script too (helpers, wrappers).
  for ns in "$AGENT" "$WORLD"; do ip netns pids "$ns" 2>/dev/null | xargs -r kill 2>/dev/null; done
  for pid in "${PIDS[@]}"; do wait "$pid" 2>/dev/null; done
  for ns in "$AGENT" "$WORLD"; do ip netns pids "$ns" 2>/dev/null | xargs -r kill -9 2>/dev/null; done
  ip netns del "$AGENT" 2>/dev/null
  ip netns del "$WORLD" 2>/dev/null
  [ -n "$WORK" ] && rm -rf "$WORK"
}
