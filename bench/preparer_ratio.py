#!/usr/bin/env python3
"""Runs PreparerBenchmark and prints, for each kind of data, the throughput of
prepare and unprepare, the limit that their stages set together
(1 / sum of 1 / stage throughput) and the share of that limit they reach.

Usage: bench/preparer_ratio.py path/to/PreparerBenchmark [benchmark options]
"""
import json
import subprocess
import sys

STAGES = {
    "BM_Prepare": ["BM_StageMd5Plain", "BM_StageCompress", "BM_StageEncrypt", "BM_StageMd5Prepared"],
    "BM_Unprepare": ["BM_StageMd5Prepared", "BM_StageDecrypt", "BM_StageDecompress", "BM_StageMd5Plain"],
}
KINDS = ["zeros", "text", "random"]
GOAL = 0.85


def run(program, options):
    output = subprocess.run([program, "--benchmark_format=json", *options],
                            check=True, capture_output=True, text=True).stdout
    throughput = {}
    for entry in json.loads(output)["benchmarks"]:
        # With repetitions, take the median; otherwise the single run.
        if entry.get("run_type") == "aggregate" and entry.get("aggregate_name") != "median":
            continue
        if entry.get("run_type") == "iteration" and "repetitions" in entry and entry["repetitions"] > 1:
            continue
        throughput[entry["run_name"]] = entry["bytes_per_second"]
    return throughput


def mib(bytes_per_second):
    return f"{bytes_per_second / (1 << 20):9.1f} MiB/s"


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    throughput = run(sys.argv[1], sys.argv[2:])
    below_goal = False
    for operation, stages in STAGES.items():
        for kind in KINDS:
            print(f"{operation}/{kind}")
            for stage in stages:
                print(f"  {stage:<22}{mib(throughput[f'{stage}/{kind}'])}")
            limit = 1.0 / sum(1.0 / throughput[f"{stage}/{kind}"] for stage in stages)
            measured = throughput[f"{operation}/{kind}"]
            ratio = measured / limit
            below_goal |= ratio < GOAL
            print(f"  {'stage limit':<22}{mib(limit)}")
            print(f"  {operation:<22}{mib(measured)}   {ratio:6.1%} of the limit")
    sys.exit(1 if below_goal else 0)


if __name__ == "__main__":
    main()
