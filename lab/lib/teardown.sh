# shellcheck shell=bash
# Removes everything the lab made: processes first (a namespace with a process
# in it outlives `ip netns del`), then namespaces, then LAB_DIR. Safe to run
# on a partial lab and any number of times.

lab_pids() {
    local ns f
    for ns in $(lab_namespaces); do
        ip netns pids "$ns" 2>/dev/null || true
    done
    for f in "$LAB_DIR"/*.pid; do
        if [[ -e "$f" ]]; then pid_from_file "$f"; fi
    done
}

stop_lab_processes() {
    local -a pids
    mapfile -t pids < <(lab_pids | sort -un)
    if ((${#pids[@]} > 0)); then
        say "stopping ${#pids[@]} lab process(es): ${pids[*]}"
        stop_pids "${pids[@]}"
    fi
}

delete_lab_namespaces() {
    local ns failed=()
    for ns in $(lab_namespaces); do
        if ! ip netns del "$ns" 2>/dev/null; then failed+=("$ns"); fi
    done
    if ((${#failed[@]} > 0)); then
        die "could not delete namespace(s) ${failed[*]}; check 'ip netns pids NAME' and retry lab/lab down"
    fi
}

# Only a directory the lab made (it holds the marker) is removed wholesale.
remove_lab_dir() {
    [[ -e "$LAB_DIR" ]] || return 0
    if [[ -e "$LAB_DIR/$LAB_MARKER" ]]; then
        rm -rf -- "$LAB_DIR"
    elif ! rmdir -- "$LAB_DIR" 2>/dev/null; then
        die "$LAB_DIR was not made by the lab (no $LAB_MARKER in it); not removing it, check HOSTRIX_LAB_DIR"
    fi
}

lab_teardown() {
    stop_lab_processes
    delete_lab_namespaces
    remove_lab_dir
    rm -f -- "${LAB_DIR}.lock"
}
