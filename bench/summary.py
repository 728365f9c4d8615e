#!/usr/bin/env python3
"""Folds the FIGURE lines of every ftpload run of one bench/compare.sh run into a Markdown table:
medians over the rounds, Korvane's ratio to each peer (above 1: Korvane is better), CPU seconds,
peak memory and the loopback limit."""
import argparse
import glob
import os
import platform
import statistics
import time

LOWER_IS_BETTER = {"secs", "us"}
RESOURCE_KEYS = {"client_cpu_s", "server_peak_pss_mib"}


def read_figures(raw):
    """{label: {key: [values]}}, {key: (name, unit)} in first-seen order, {label: {key: [reasons]}}."""
    values, meta, why = {}, {}, {}
    for path in sorted(glob.glob(os.path.join(raw, "*.txt"))):
        with open(path, encoding="utf-8", errors="replace") as f:
            for line in f:
                if not line.startswith("FIGURE\t"):
                    continue
                parts = line.rstrip("\n").split("\t")
                if len(parts) < 7:
                    continue
                _, label, key, value, unit, name, reason = parts[:7]
                meta.setdefault(key, (name, unit))
                values.setdefault(label, {}).setdefault(key, [])
                if value == "n/a":
                    why.setdefault(label, {}).setdefault(key, []).append(reason)
                else:
                    values[label][key].append(float(value))
    return values, meta, why


def med(values, label, key):
    v = values.get(label, {}).get(key, [])
    return statistics.median(v) if v else None


def fmt(v):
    if v is None:
        return "n/a"
    return f"{v:.0f}" if abs(v) >= 100 else f"{v:.2f}" if abs(v) >= 1 else f"{v:.3f}"


def ratio(k, p, unit):
    if k is None or p is None or k <= 0 or p <= 0:
        return None
    return p / k if unit in LOWER_IS_BETTER else k / p


def machine():
    model = "unknown CPU"
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    model = line.split(":", 1)[1].strip()
                    break
    except OSError:
        pass
    return f"{os.cpu_count()} CPUs ({model}), Linux {platform.release()}"


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--raw", required=True)
    ap.add_argument("--cpu", required=True)
    ap.add_argument("--commit", default="unknown")
    ap.add_argument("--korvane-note", default="")
    for opt in ("--rounds", "--clients", "--size", "--tls-size", "--conc-size", "--seconds"):
        ap.add_argument(opt, type=int, default=0)
    a = ap.parse_args()

    values, meta, why = read_figures(a.raw)
    peers = [p for p in ("vsftpd", "pure-ftpd", "proftpd") if p in values]
    servers = ["korvane"] + peers
    out = []
    out.append(f"Run of {time.strftime('%Y-%m-%d %H:%M UTC', time.gmtime())}, commit {a.commit}, "
               f"{a.seconds} s in all.  ")
    out.append(f"Machine: {machine()}.  ")
    out.append(f"{a.rounds} interleaved rounds; N = {a.clients} clients; single transfers of {a.size} MiB "
               f"({a.tls_size} MiB with TLS); concurrent transfers of {a.conc_size} MiB each. "
               "Medians over the rounds; MB/s are 10^6 bytes a second. "
               "Ratios are Korvane's advantage (above 1: Korvane is better).")
    out.append("")
    head = ["Figure", "unit"] + servers + [f"K / {p}" for p in peers]
    out.append("| " + " | ".join(head) + " |")
    out.append("|" + "---|" * len(head))
    for key, (name, unit) in meta.items():
        if key in RESOURCE_KEYS or key.startswith("loopback"):
            continue
        k = med(values, "korvane", key)
        row = [name, unit] + [fmt(med(values, s, key)) for s in servers]
        row += [fmt(ratio(k, med(values, p, key), unit)) for p in peers]
        out.append("| " + " | ".join(row) + " |")
    out.append("")

    cpu = {}
    with open(a.cpu) as f:
        for line in f:
            parts = line.rstrip("\n").split("\t")
            if len(parts) >= 3:
                cpu[parts[0]] = (parts[1], parts[2])
    out.append("| Resources | " + " | ".join(servers) + " |")
    out.append("|---|" + "---|" * len(servers))
    out.append("| server CPU seconds, all rounds | " +
               " | ".join(cpu.get(s, ("n/a", ""))[0] for s in servers) + " |")
    peak = [max(values.get(s, {}).get("server_peak_pss_mib", []) or [None], key=lambda v: v or 0) for s in servers]
    out.append("| server peak memory, MiB (PSS of its processes) | " + " | ".join(fmt(v) for v in peak) + " |")
    out.append("| ftpload's own CPU seconds per run | " +
               " | ".join(fmt(med(values, s, "client_cpu_s")) for s in servers) + " |")
    out.append("")

    sendfile = med(values, "loopback", "loopback_mbs")
    copy = med(values, "loopback", "loopback_copy_mbs")
    loop = max(sendfile or 0, copy or 0) or None
    out.append(f"Loopback limit, a {a.size} MiB file between two sockets in the same run (best of three "
               f"passes, median over the rounds): {fmt(sendfile)} MB/s with sendfile, {fmt(copy)} MB/s "
               "read and sent.  ")
    shares = []
    for s in servers:
        r = med(values, s, "retr_mbs")
        shares.append(f"{s} {100 * r / loop:.0f}%" if r and loop else f"{s} n/a")
    out.append("RETR as a share of the higher of the two: " + ", ".join(shares) + ".")
    how = sorted({v[1] for v in cpu.values()})
    if how:
        out.append(f"CPU seconds come from: {', '.join(how)}.")
    out.append("")

    notes = []
    if a.korvane_note:
        notes.append(f"Korvane was not measured: {a.korvane_note}.")
    for label in servers:
        # One note per reason, naming every figure it took away.
        by_reason = {}
        for key, reasons in why.get(label, {}).items():
            name = meta.get(key, (key, ""))[0]
            by_reason.setdefault(reasons[0], []).append(f"{name} ({len(reasons)} of {a.rounds} rounds)")
        for reason, names in by_reason.items():
            notes.append(f"{label}: {reason}: " + "; ".join(names))
    if notes:
        out.append("Figures without a value:")
        out.append("")
        out.extend(f"- {n}" for n in notes)
    print("\n".join(out))


if __name__ == "__main__":
    main()
