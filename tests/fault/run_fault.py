"""Runs scenarios of the fault laboratory and prints what each cost.

    run_fault.py --list
    run_fault.py --only NAME_OR_BEGINNING [--seed N] [--cycles N] [--for SECONDS]

Exit status: 0 all green, 1 something was lost, repeated or failed, 77 nothing could run here.
"""
import argparse
import os
import random
import statistics
import sys
import time
import traceback
import unittest
from pathlib import Path

HERE = Path(__file__).resolve().parent


def parse_arguments():
    parser = argparse.ArgumentParser(description="fault laboratory")
    parser.add_argument("--build", default=HERE.parents[1] / "build", help="build directory")
    parser.add_argument("--list", action="store_true", help="print the rows' names")
    parser.add_argument("--only", action="append", help="rows of this name or beginning")
    parser.add_argument("--seed", type=int, help="first seed (default: chosen and printed)")
    parser.add_argument("--cycles", type=int, help="kills, restarts or steps of a row")
    parser.add_argument("--for", dest="seconds", type=float, default=0,
                        help="go on with new seeds for so many seconds")
    return parser.parse_args()


def judge(row, account, figures):
    """What is wrong with an account, or nothing."""
    faults = []
    allowed = row.repeated(figures) if callable(row.repeated) else row.repeated
    if row.lost is not None and account.lost > row.lost:
        faults.append(f"lost {account.lost}, at most {row.lost}")
    if allowed is not None and account.repeated > allowed:
        faults.append(f"repeated {account.repeated}, at most {allowed}")
    if account.torn:
        faults.append(f"torn {account.torn}")
    if account.disordered and row.lost is not None:
        faults.append(f"out of order {account.disordered}")
    return faults


def run_row(row, seed, cycles):
    """Runs one row with one seed. Returns (verdict, account, figures, seconds)."""
    from lab import Account
    begin = time.monotonic()
    account, figures = Account(), {}
    try:
        with row.lab(seed) as lab:
            figures = lab.figures
            if cycles:
                figures["cycles"] = cycles
            row.run(lab, **row.arguments)
            account = lab.account()
            faults = judge(row, account, figures)
            if faults:
                raise AssertionError("; ".join(faults + account.samples))
        verdict = "ok"
    except unittest.SkipTest as reason:
        verdict = f"skipped: {reason}"
    except Exception as error:  # any failure of a row is a row of the table
        traceback.print_exc()
        verdict = f"FAILED with --seed {seed}: {error}"
    return verdict, account, figures, time.monotonic() - begin


def main():
    arguments = parse_arguments()
    os.environ["COLLECTOR_BUILD"] = str(Path(arguments.build).resolve())
    import network
    from scenarios import rows  # reads the environment
    network.enter()
    table = [r for r in rows() if not arguments.only or
             any(r.name == o or r.name.startswith(o + ".") for o in arguments.only)]
    if arguments.list:
        print("\n".join(r.name for r in table))
        return 0
    if not table:
        print(f"no row is named {arguments.only}", file=sys.stderr)
        return 64
    seed = arguments.seed if arguments.seed is not None else random.randrange(1_000_000)
    end = time.monotonic() + arguments.seconds
    print(f"{'scenario':46} {'seed':>7} {'s':>6} {'written':>8} {'lost':>5} {'twice':>6}  verdict",
          flush=True)
    failed = skipped = run = 0
    totals, stops = {"written": 0, "lost": 0, "repeated": 0}, []
    while True:
        for row in table:
            verdict, account, figures, took = run_row(row, seed, arguments.cycles)
            run += 1
            failed += verdict.startswith("FAILED")
            skipped += verdict.startswith("skipped")
            stops += figures.get("stop_s", [])
            for key in totals:
                totals[key] += getattr(account, key)
            notes = " ".join(f"{k}={v}" for k, v in figures.items() if k != "stop_s")
            print(f"{row.name:46} {seed:7} {took:6.1f} {account.written:8} {account.lost:5} "
                  f"{account.repeated:6}  {verdict} {notes}", flush=True)
            if arguments.seconds and time.monotonic() > end:
                break
        seed += 1
        if not arguments.seconds or time.monotonic() > end:
            break
    print(f"{run} runs, {failed} failed, {skipped} skipped; {totals['written']} events written, "
          f"{totals['lost']} lost, {totals['repeated']} twice")
    if stops:
        print(f"{len(stops)} stops: median {statistics.median(stops) * 1000:.0f} ms, "
              f"worst {max(stops) * 1000:.0f} ms")
    if failed:
        return 1
    return 77 if skipped == run else 0


if __name__ == "__main__":
    sys.exit(main())
