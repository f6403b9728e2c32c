#!/usr/bin/env python3
"""Runs the benchmark binary and prints each library figure beside its raw
record-store baseline with their ratio (library / raw)."""
import json
import subprocess
import sys

binary = sys.argv[1] if len(sys.argv) > 1 else "build/bench/bench/tevash_bench"
extra = sys.argv[2:]
# Each figure is the median of several repetitions: single runs on a small
# shared machine vary by 10 % and more. The repetitions of all benchmarks are
# interleaved in random order, so a library figure and its baseline see the
# same spells of a busy host.
out = subprocess.run([binary, "--benchmark_format=json", "--benchmark_repetitions=9",
                      "--benchmark_min_time=0.2", "--benchmark_enable_random_interleaving=true",
                      "--benchmark_report_aggregates_only=true", *extra], check=True,
                     capture_output=True, text=True).stdout
runs = {b["run_name"]: b for b in json.loads(out)["benchmarks"]
        if b.get("run_type") == "aggregate" and b.get("aggregate_name") == "median"}

# Rows in a fixed order whatever order the repetitions ran in.
ORDER = ["BM_read_itself", "BM_read_child", "BM_read_auth", "BM_write_auth", "BM_member_category",
         "BM_copy/1", "BM_copy/16", "BM_copy/256", "BM_create", "BM_create_processes",
         "BM_create_processes_no_director", "BM_serve_create", "BM_read_auth_threads",
         "BM_ipc_round_trip"]
# Figures whose baseline is another library figure: the same create in one process.
BASELINE = {"BM_create_processes": "BM_create", "BM_create_processes_no_director": "BM_create"}


def bare_name(name):
    return name.replace("/real_time", "").replace("/manual_time", "")


def row_order(name):
    name = bare_name(name)
    ranks = [i for i, prefix in enumerate(ORDER) if name == prefix or name.startswith(prefix + "/")]
    return (ranks[-1] if ranks else len(ORDER), name)


print(f"{'benchmark':44} {'ns/op':>10} {'raw ns/op':>10} {'ratio':>7}")
for name, b in sorted(runs.items(), key=lambda item: row_order(item[0])):
    if name.startswith("BM_raw_"):
        continue
    # Names measured in wall time end in "/real_time" (or carry it before their
    # arguments); their baseline is looked up by the bare name.
    bare = bare_name(name)
    raw_name = BASELINE.get(bare, name.replace("BM_", "BM_raw_", 1))
    raw = runs.get(raw_name) or runs.get(raw_name.replace("_scan", "")) or runs.get(
        raw_name.replace("BM_raw_member_category", "BM_raw_member_category_scan"))
    # Threaded figures and work in other processes are wall time per operation
    # (the sender's CPU time leaves out the other side's work).
    wall = ("threads" in name or "round_trip" in name or bare in BASELINE or "/real_time" in name
            or "/manual_time" in name)
    clock = "real_time" if wall else "cpu_time"
    t = b[clock]
    if raw:
        r = raw[clock]
        print(f"{name:44} {t:10.1f} {r:10.1f} {t / r:7.2f}")
    else:
        print(f"{name:44} {t:10.1f} {'':>10} {'':>7}")
    if "round_trip" in name and raw and "cpu_ns" in b and "cpu_ns" in raw:
        c, rc = b["cpu_ns"], raw["cpu_ns"]
        print(f"{'  CPU of both processes':44} {c:10.1f} {rc:10.1f} {c / rc:7.2f}")
    # Creates through the service beside the raw relay: CPU per create of each process.
    for counter, label in (("middle_cpu_ns", "service / relay"), ("end_cpu_ns", "director / end"),
                           ("client_cpu_ns", "clients")):
        if counter in b and raw and counter in raw and raw[counter]:
            c, rc = b[counter], raw[counter]
            print(f"{'  CPU per create, ' + label:44} {c:10.1f} {rc:10.1f} {c / rc:7.2f}")
    if name.startswith("BM_copy/"):
        n = int(name.split("/")[1])
        raw_per_child = f"{raw['cpu_time'] / n:10.1f}" if raw else ""
        print(f"{'  per child':44} {t / n:10.1f} {raw_per_child}")

# The SQLite record store against a hand-written SQLite program doing the same
# logical work (bench/sqlite_bench.cpp), when built beside the main binary: CPU
# time per operation, autocommit (txn:0) and inside one transaction (txn:1).
import os
sqlite_bench = os.path.join(os.path.dirname(binary), "tevash_sqlite_bench")
if os.path.exists(sqlite_bench):
    out = subprocess.run([sqlite_bench, "--benchmark_format=json", "--benchmark_repetitions=9",
                          "--benchmark_min_time=0.2", "--benchmark_enable_random_interleaving=true",
                          "--benchmark_report_aggregates_only=true"], check=True,
                         capture_output=True, text=True).stdout
    aggregates = [b for b in json.loads(out)["benchmarks"] if b.get("run_type") == "aggregate"]
    by = {(b["run_name"], b["aggregate_name"]): b["cpu_time"] for b in aggregates}
    wall = {(b["run_name"], b["aggregate_name"]): b["real_time"] for b in aggregates}
    print()
    print(f"{'SQLite store: CPU ns/op':36} {'store':>9} {'raw':>9} {'ratio':>6}"
          f" {'min':>6} {'max':>6} {'wall':>9} {'raw wall':>9} {'ratio':>6}")
    ops = ["member_read", "member_write", "create/", "create_and_link", "unlink", "copy",
           "child_by_order", "remove"]
    rank = lambda name: ([i for i, op in enumerate(ops) if "BM_sqlite_" + op in name + "/"] +
                         [len(ops)])[0]
    for name in sorted((n for (n, agg) in by if agg == "median" and n.startswith("BM_sqlite_")),
                       key=lambda n: (rank(n), n)):
        t = by[(name, "median")]
        raw_name = name.replace("BM_sqlite_", "BM_raw_sqlite_", 1)
        r = by.get((raw_name, "median"))
        # min and max: the fastest and slowest repetitions of each side, paired.
        lo = by.get((name, "min")), by.get((raw_name, "min"))
        hi = by.get((name, "max")), by.get((raw_name, "max"))
        spread = (f" {lo[0] / lo[1]:6.2f} {hi[0] / hi[1]:6.2f}"
                  if None not in lo and None not in hi else "")
        label = name.replace("BM_sqlite_", "")
        w, rw = wall[(name, "median")], wall.get((raw_name, "median"))
        walls = f" {w:9.0f} {rw:9.0f} {w / rw:6.2f}" if rw else ""
        print(f"{label:36} {t:9.0f} {r:9.0f} {t / r:6.2f}{spread}{walls}" if r
              else f"{label:36} {t:9.0f}")

# Scale of the record store (bench/scale_bench.cpp), when built beside the main
# binary: cost per child of building, drawing and copying a job of 1k, 10k and
# 100k children, and the ratio 100k / 1k (flat is 1.0). CPU time per child: on a
# shared machine the wall time of the persistent store also holds other
# processes' turns and the disk.
scale = os.path.join(os.path.dirname(binary), "tevash_scale_bench")
if os.path.exists(scale):
    out = subprocess.run([scale, "--benchmark_format=json"], check=True, capture_output=True,
                         text=True).stdout
    rows, walls = {}, {}
    for b in json.loads(out)["benchmarks"]:
        if b.get("aggregate_name") != "median":
            continue
        parts = b["run_name"].split("/")
        op, file_arg, children = parts[:3]
        op = op.replace("BM_scale_", "").replace("BM_shape_", "")
        if len(parts) > 3 and parts[3].startswith("deep:"):  # the shape rows: wide or deep
            op += " deep" if parts[3].endswith(":1") else " wide"
        key = (op, "file" if file_arg.endswith(":1") else "memory")
        n = int(children.split(":")[1])
        rows.setdefault(key, {})[n] = b["per_child"] * 1e6
        # Wall time of the whole operation (in the benchmark's unit, ms) per child.
        scale_ms = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}[b.get("time_unit", "ms")]
        walls.setdefault(key, {})[n] = b["real_time"] * scale_ms * 1e3 / n
    for title, table in (("scale: us of CPU per child", rows), ("scale: us of wall per child",
                                                                 walls)):
        print()
        print(f"{title:28} {'1k':>10} {'10k':>10} {'100k':>10} {'100k/1k':>8}")
        for (op, store_kind), by_n in sorted(table.items()):
            cells = [by_n.get(n) for n in (1000, 10000, 100000)]
            text = " ".join(f"{c:10.3f}" if c is not None else f"{'':>10}" for c in cells)
            ratio = f"{cells[2] / cells[0]:8.2f}" if cells[0] and cells[2] else ""
            print(f"{op + ', ' + store_kind:28} {text} {ratio}")

# Monitoring and watching (bench/live_bench.cpp), when built beside the main
# binary: a create through the service and a member write to the shared store,
# wall time, with nothing attached and with one monitor or watcher.
live = os.path.join(os.path.dirname(binary), "tevash_live_bench")
if os.path.exists(live):
    out = subprocess.run([live, "--benchmark_format=json", "--benchmark_repetitions=9",
                          "--benchmark_min_time=0.2", "--benchmark_enable_random_interleaving=true",
                          "--benchmark_report_aggregates_only=true"], check=True,
                         capture_output=True, text=True).stdout
    med = {b["run_name"]: b["real_time"] for b in json.loads(out)["benchmarks"]
           if b.get("aggregate_name") == "median"}
    print()
    print(f"{'live: wall ns/op':36} {'none':>9} {'one':>9} {'ratio':>6}")
    for op, arg in (("BM_create_monitored", "monitor"), ("BM_member_write_watched", "watcher")):
        off = med.get(f"{op}/{arg}:0/real_time")
        on = med.get(f"{op}/{arg}:1/real_time")
        if off and on:
            print(f"{op.replace('BM_', '') + ' (' + arg + ')':36} {off:9.0f} {on:9.0f}"
                  f" {on / off:6.2f}")
