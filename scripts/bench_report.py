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
         "BM_create_processes_no_director", "BM_read_auth_threads", "BM_ipc_round_trip"]
# Figures whose baseline is another library figure: the same create in one process.
BASELINE = {"BM_create_processes": "BM_create", "BM_create_processes_no_director": "BM_create"}


def row_order(name):
    name = name.replace("/real_time", "")
    ranks = [i for i, prefix in enumerate(ORDER) if name == prefix or name.startswith(prefix + "/")]
    return (ranks[-1] if ranks else len(ORDER), name)


print(f"{'benchmark':44} {'ns/op':>10} {'raw ns/op':>10} {'ratio':>7}")
for name, b in sorted(runs.items(), key=lambda item: row_order(item[0])):
    if name.startswith("BM_raw_"):
        continue
    # Names measured in wall time end in "/real_time" (or carry it before their
    # arguments); their baseline is looked up by the bare name.
    bare = name.replace("/real_time", "")
    raw_name = BASELINE.get(bare, name.replace("BM_", "BM_raw_", 1))
    raw = runs.get(raw_name) or runs.get(raw_name.replace("_scan", "")) or runs.get(
        raw_name.replace("BM_raw_member_category", "BM_raw_member_category_scan"))
    # Threaded figures and work in other processes are wall time per operation
    # (the sender's CPU time leaves out the other side's work).
    wall = "threads" in name or "round_trip" in name or bare in BASELINE or "/real_time" in name
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
    if name.startswith("BM_copy/"):
        n = int(name.split("/")[1])
        raw_per_child = f"{raw['cpu_time'] / n:10.1f}" if raw else ""
        print(f"{'  per child':44} {t / n:10.1f} {raw_per_child}")

# Scale of the record store (bench/scale_bench.cpp), when built beside the main
# binary: cost per child of building, drawing and copying a job of 1k, 10k and
# 100k children, and the ratio 100k / 1k (flat is 1.0). CPU time per child: on a
# shared machine the wall time of the persistent store also holds other
# processes' turns and the disk.
import os
scale = os.path.join(os.path.dirname(binary), "tevash_scale_bench")
if os.path.exists(scale):
    out = subprocess.run([scale, "--benchmark_format=json"], check=True, capture_output=True,
                         text=True).stdout
    rows = {}
    for b in json.loads(out)["benchmarks"]:
        if b.get("aggregate_name") != "median":
            continue
        parts = b["run_name"].split("/")
        op, file_arg, children = parts[:3]
        op = op.replace("BM_scale_", "").replace("BM_shape_", "")
        if len(parts) > 3 and parts[3].startswith("deep:"):  # the shape rows: wide or deep
            op += " deep" if parts[3].endswith(":1") else " wide"
        key = (op, "file" if file_arg.endswith(":1") else "memory")
        rows.setdefault(key, {})[int(children.split(":")[1])] = b["per_child"] * 1e6
    print()
    print(f"{'scale: us per child':28} {'1k':>10} {'10k':>10} {'100k':>10} {'100k/1k':>8}")
    for (op, store_kind), by_n in sorted(rows.items()):
        cells = [by_n.get(n) for n in (1000, 10000, 100000)]
        text = " ".join(f"{c:10.3f}" if c is not None else f"{'':>10}" for c in cells)
        ratio = f"{cells[2] / cells[0]:8.2f}" if cells[0] and cells[2] else ""
        print(f"{op + ', ' + store_kind:28} {text} {ratio}")
