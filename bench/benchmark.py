"""Driver of bench/run: times quarvel --conf=mock against an h5py reference writer, the bare
zlib bound and its own pipeline stages, and prints the results as Markdown.

Every child is timed from spawn to exit, and its peak resident memory, CPU time and page faults
come from the kernel (through GNU time). Figures are medians over --runs runs, interleaved so that a
change of load on the shared machine hits every item alike.
"""

import argparse
import csv
import datetime
import os
import platform
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

MiB = 1 << 20
GiB = 1 << 30
FULL_SIZES = [64 * MiB, 256 * MiB, 1024 * MiB]
QUICK_SIZES = [4 * MiB, 16 * MiB]
LOG_SIZE = 256 * MiB

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(HERE)

# Items in table order: key, label, what the "time" column holds.
ITEMS = [
    ("quarvel", "quarvel --conf=mock (end to end)", "process"),
    ("pipeline", "quarvel's pipeline alone: first mover started to file closed", "inner"),
    ("reference", "h5py + numpy reference writer", "inner"),
    ("zlib", "zlib level 6 bound, 16 KiB chunks, one core", "inner"),
    ("source_decoder", "stage: MockRecorder -> DecoderTavoADC -> reader", "inner"),
    ("sink", "stage: SinkHDF5 fed 128 KiB decoded buffers", "inner"),
]
LABELS = dict((key, label) for key, label, _ in ITEMS)


class BenchError(Exception):
    pass


def log(message):
    print(f"bench: {message}", file=sys.stderr, flush=True)


def human_size(nbytes):
    return f"{nbytes // GiB} GiB" if nbytes % GiB == 0 else f"{nbytes // MiB} MiB"


# ---------------------------------------------------------------------------------------------
# Machine


def cpu_model():
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    return line.split(":", 1)[1].strip()
    except OSError:
        pass
    return platform.processor() or "unknown CPU"


def memory_gib():
    try:
        with open("/proc/meminfo") as f:
            for line in f:
                if line.startswith("MemTotal:"):
                    return int(line.split()[1]) / (1 << 20)
    except OSError:
        pass
    return float("nan")


def busy_seconds():
    """CPU seconds spent busy by the whole machine so far, and seconds stolen by the host."""
    with open("/proc/stat") as f:
        fields = [int(x) for x in f.readline().split()[1:]]
    hz = os.sysconf("SC_CLK_TCK")
    idle = fields[3] + (fields[4] if len(fields) > 4 else 0)
    steal = fields[7] if len(fields) > 7 else 0
    return (sum(fields[:8]) - idle - steal) / hz, steal / hz


def own_cpu_seconds():
    t = os.times()
    return t.user + t.system + t.children_user + t.children_system


# ---------------------------------------------------------------------------------------------
# Children


class Sample:
    """One run of one item."""

    def __init__(self, process, cpu, rss_kib, faults, timed=None, file_bytes=None,
                 compressed=None, poll_wait=None):
        self.process = process
        self.timed = process if timed is None else timed
        self.cpu = cpu
        self.rss_mib = rss_kib / 1024.0
        self.faults = faults
        self.file_bytes = file_bytes
        self.compressed = compressed
        self.poll_wait = poll_wait


TIME = "/usr/bin/time"


def run_child(cmd, workdir, stderr_to_null=False):
    """Runs cmd; returns (Sample without timed figure, stdout text). Raises on failure.

    The kernel's figures come through GNU time rather than our own wait4: a child forked from
    this interpreter would carry the interpreter's resident set (numpy, h5py) into its peak
    RSS, which exec keeps; time forks from a process of a few hundred KiB.
    """
    out_path = os.path.join(workdir, "child.out")
    err_path = os.path.join(workdir, "child.err")
    usage_path = os.path.join(workdir, "child.usage")
    with open(out_path, "wb") as out, open(os.devnull if stderr_to_null else err_path,
                                          "wb") as err:
        start = time.perf_counter()
        code = subprocess.call([TIME, "-f", "%M %R %U %S", "-o", usage_path, "--"] + cmd,
                               stdin=subprocess.DEVNULL, stdout=out, stderr=err)
        elapsed = time.perf_counter() - start
    with open(out_path, errors="replace") as f:
        stdout = f.read()
    if code != 0:
        detail = ""
        if not stderr_to_null:
            with open(err_path, errors="replace") as f:
                detail = f.read()[-2000:]
        raise BenchError(f"{' '.join(cmd)} exited with {code}\n{stdout[-2000:]}{detail}")
    with open(usage_path) as f:
        rss_kib, faults, user, system = f.read().split()[-4:]
    sample = Sample(elapsed, float(user) + float(system), int(rss_kib), int(faults))
    return sample, stdout


LOG_TIME = r"^(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d+)Z \w+ \[[^\]]*\] "


def pipeline_times(log_text, cmd):
    """(seconds from the first mover's start to the file's close, seconds from there until
    the transfer run noticed the end), from the timestamps of quarvel's info log."""
    marks = {}
    for key, text in (("start", "starting data mover "), ("closed", "HDF5 sink closed"),
                      ("noticed", "All data movers finished their job")):
        match = re.search(LOG_TIME + re.escape(text), log_text, re.M)
        if not match:
            raise BenchError(f"{' '.join(cmd)}: no log line '{text}'")
        marks[key] = datetime.datetime.fromisoformat(match.group(1))
    return ((marks["closed"] - marks["start"]).total_seconds(),
            (marks["noticed"] - marks["closed"]).total_seconds())


def reported(stdout, key, cmd):
    match = re.search(rf"\b{key}=([0-9.]+)", stdout)
    if not match:
        raise BenchError(f"{' '.join(cmd)} printed no {key}=: {stdout[-500:]}")
    return float(match.group(1))


class Bench:
    def __init__(self, args, python):
        self.args = args
        self.python = python
        self.quarvel = os.path.join(args.build_dir, "quarvel")
        self.helper = os.path.join(args.build_dir, "bench", "quarvel_bench")
        self.workdir = tempfile.mkdtemp(prefix="quarvel-bench-", dir=args.tmpdir)
        self.h5 = os.path.join(self.workdir, "recording.h5")

    def close(self):
        shutil.rmtree(self.workdir, ignore_errors=True)

    def take_file(self, sample, size, verify):
        sample.file_bytes = os.path.getsize(self.h5)
        if verify:
            verify_file(self.h5, size)
        os.remove(self.h5)
        return sample

    def quarvel_run(self, size, verify=False, log_level=None, keep_log=False):
        cmd = [self.quarvel, "--conf=mock", "--rec-dev=/dev/null", f"--data-bytes={size}",
               f"--file={self.h5}"]
        if log_level:
            cmd.append(f"--log-level={log_level}")
        sample, stdout = run_child(cmd, self.workdir,
                                   stderr_to_null=bool(log_level) and not keep_log)
        if "Transfer successful" not in stdout:
            raise BenchError(f"{' '.join(cmd)} did not report success: {stdout[-500:]}")
        if keep_log:
            with open(os.path.join(self.workdir, "child.err"), errors="replace") as f:
                sample.timed, sample.poll_wait = pipeline_times(f.read(), cmd)
        return self.take_file(sample, size, verify)

    def pipeline_run(self, size, verify=False):
        """quarvel at info level, its pipeline timed from its own log's timestamps."""
        return self.quarvel_run(size, log_level="info", keep_log=True)

    def reference_run(self, size, verify=False):
        cmd = [self.python, os.path.join(HERE, "reference_writer.py"), self.h5, str(size)]
        sample, stdout = run_child(cmd, self.workdir)
        sample.timed = reported(stdout, "seconds", cmd)
        return self.take_file(sample, size, verify)

    def zlib_run(self, size, verify=False):
        cmd = [self.helper, "zlib", str(size)]
        sample, stdout = run_child(cmd, self.workdir)
        sample.timed = reported(stdout, "seconds", cmd)
        sample.compressed = reported(stdout, "compressed", cmd)
        return sample

    def source_decoder_run(self, size, verify=False):
        cmd = [self.helper, "source-decoder", str(size)]
        sample, stdout = run_child(cmd, self.workdir)
        sample.timed = reported(stdout, "seconds", cmd)
        return sample

    def sink_run(self, size, verify=False):
        cmd = [self.helper, "sink", str(size), self.h5]
        sample, stdout = run_child(cmd, self.workdir)
        sample.timed = reported(stdout, "seconds", cmd)
        return self.take_file(sample, size, verify)

    def helper_info(self):
        _, stdout = run_child([self.helper, "info"], self.workdir)
        return dict(re.findall(r"(\w+)=(\S+)", stdout))


# ---------------------------------------------------------------------------------------------
# Checking the files


def verify_file(path, size):
    """Checks layout and every value of a mock recording against numpy's own decoding."""
    import h5py
    import numpy as np

    values = size // 4
    counter = np.arange(65536, dtype=np.uint32)  # the samples repeat every 65536 words
    big_endian = ((counter & 0xFF) << 8) | ((counter >> 8) & 0xFF)
    period = (big_endian.astype(np.uint16).view(np.int16) >> 2).astype(np.int32)
    block = np.tile(period, 64)
    with h5py.File(path, "r") as f:
        d = f["quarvel"]
        layout = (d.shape, d.dtype.str, d.chunks, d.compression, d.compression_opts)
        want = ((values,), ">i4", (4096,), "gzip", 6)
        if layout != want:
            raise BenchError(f"{path}: layout {layout}, expected {want}")
        for first in range(0, values, block.size):
            last = min(first + block.size, values)
            if not np.array_equal(d[first:last], block[:last - first]):
                raise BenchError(f"{path}: wrong samples in [{first}, {last})")


# ---------------------------------------------------------------------------------------------
# Build


def build(args):
    log_path = os.path.join(tempfile.gettempdir(), f"quarvel-bench-build-{os.getpid()}.log")
    steps = [
        ["cmake", "-S", REPO, "-B", args.build_dir, "-DCMAKE_BUILD_TYPE=Release",
         "-DQUARVEL_BUILD_BENCH=ON"],
        ["cmake", "--build", args.build_dir, "-j2", "--target", "quarvel", "quarvel_bench"],
    ]
    log(f"building quarvel and quarvel_bench in {args.build_dir} (log: {log_path})")
    with open(log_path, "w") as out:
        for step in steps:
            out.write(f"$ {' '.join(step)}\n")
            out.flush()
            if subprocess.run(step, stdout=out, stderr=subprocess.STDOUT).returncode != 0:
                out.close()
                with open(log_path, errors="replace") as f:
                    text = f.read()
                hint = ""
                if "quarvel_bench" in text and re.search(r"[Nn]o rule to make target|unknown "
                                                         r"target", text):
                    hint = ("\nThe helper target is not part of the build: the top-level "
                            "CMakeLists.txt must contain add_subdirectory(bench) (behind the "
                            "option QUARVEL_BUILD_BENCH).")
                raise BenchError(f"build step failed: {' '.join(step)}\n{text[-3000:]}{hint}")
    os.remove(log_path)


# ---------------------------------------------------------------------------------------------
# Reporting


def median(samples, attr):
    values = [getattr(s, attr) for s in samples]
    if any(v is None for v in values):
        return None
    return statistics.median(values)


def fmt(value, digits=2):
    return "–" if value is None else f"{value:.{digits}f}"


METRICS = [("time", "timed", "time_s"), ("process", "process", "process_s"),
           ("cpu", "cpu", "cpu_s"), ("rss", "rss_mib", "peak_rss_mib"),
           ("faults", "faults", "page_faults")]


def summarise(samples, size):
    s = {"raw": {}}
    for key, attr, _ in METRICS:
        s[key] = median(samples, attr)
        s["raw"][key] = [getattr(x, attr) for x in samples]
    s["runs"] = s["raw"]["time"]
    s["poll_wait"] = median(samples, "poll_wait")
    s["rss_max"] = max(s["raw"]["rss"])
    s["mbps"] = size / s["time"] / 1e6
    out_bytes = median(samples, "file_bytes") or median(samples, "compressed")
    s["compression"] = size / out_bytes if out_bytes else None
    return s


def print_report(args, machine, results, log_results, sizes, load):
    p = print
    p("# quarvel benchmark\n")
    p(f"Run {machine['date']} on {machine['cpu']}, {machine['cores']} cores "
      f"({machine['usable']} usable), {machine['mem']:.0f} GiB memory, {machine['kernel']}; "
      f"quarvel built {machine['build_type']} with g++ {machine['compiler']}, HDF5 "
      f"{machine['hdf5']}, zlib {machine['zlib']}; reference writer on Python "
      f"{machine['python']}, h5py {machine['h5py']} (HDF5 {machine['h5py_hdf5']}), numpy "
      f"{machine['numpy']}.\n")
    p(f"Load: load average {load['before']:.2f} before, {load['after']:.2f} after; other "
      f"processes kept {load['others']:.2f} of {machine['cores']} cores busy on average during "
      f"the {load['seconds']:.0f} s of measurements"
      + (f", the hypervisor stole {load['steal']:.2f} cores" if load['steal'] > 0.01 else "")
      + ".\n")
    p(f"Each figure is the median of {args.runs} run(s). MB = 10^6 bytes of recording (the "
      f"recorder's bytes). *time*: for quarvel the whole process, start to exit; for the others "
      f"only the work itself, as the program times it (no interpreter start or imports), which "
      f"favours them; for quarvel's pipeline, a run at --log-level=info timed by its own log "
      f"from the first mover's start to the file's close, without the process start and the "
      f"wait for the transfer run's 250 ms poll to notice the end. *process*: every program from spawn to exit. CPU, peak RSS (maximum "
      f"resident set size) and minor page faults come from the kernel (GNU time). Compression = "
      f"recorded bytes / file size (zlib: / compressed bytes)."
      + ("" if args.no_verify else " Each file of the first run was read back and every "
         "sample checked.") + "\n")

    p("## Results\n")
    p("| size | what | time s | process s | MB/s | CPU s | peak RSS MiB | max peak RSS MiB "
      "| page faults | compression |")
    p("|---|---|--:|--:|--:|--:|--:|--:|--:|--:|")
    for size in sizes:
        for key, label, _ in ITEMS:
            s = results[size][key]
            p(f"| {human_size(size)} | {label} | {fmt(s['time'], 3)} | {fmt(s['process'], 3)} "
              f"| {fmt(s['mbps'], 1)} | {fmt(s['cpu'], 2)} | {fmt(s['rss'], 1)} "
              f"| {fmt(s['rss_max'], 1)} | {s['faults']:.0f} | {fmt(s['compression'], 2)} |")
    p("")

    p("## Ratios\n")
    p("| size | quarvel / reference (MB/s) | same, both whole processes | quarvel / zlib bound "
      "(MB/s) | pipeline / zlib bound | sink stage / zlib bound | wait for the poll s "
      "| quarvel peak RSS MiB per recorded GiB | slowest stage |")
    p("|---|--:|--:|--:|--:|--:|--:|--:|---|")
    ratios = {}
    for size in sizes:
        r = results[size]
        slowest = min(("source_decoder", "sink"), key=lambda k: r[k]["mbps"])
        ratios[size] = {
            "quarvel/reference": r["quarvel"]["mbps"] / r["reference"]["mbps"],
            "quarvel/reference_process": r["reference"]["process"] / r["quarvel"]["process"],
            "quarvel/zlib": r["quarvel"]["mbps"] / r["zlib"]["mbps"],
            "pipeline/zlib": r["pipeline"]["mbps"] / r["zlib"]["mbps"],
            "sink/zlib": r["sink"]["mbps"] / r["zlib"]["mbps"],
            "rss_per_gib": r["quarvel"]["rss"] / (size / GiB),
        }
        q = ratios[size]
        p(f"| {human_size(size)} | {q['quarvel/reference']:.2f} "
          f"| {q['quarvel/reference_process']:.2f} | {q['quarvel/zlib']:.2f} "
          f"| {q['pipeline/zlib']:.2f} | {q['sink/zlib']:.2f} "
          f"| {fmt(r['pipeline']['poll_wait'], 3)} | {q['rss_per_gib']:.1f} | {LABELS[slowest]} "
          f"({r[slowest]['mbps']:.0f} MB/s) |")
    p("")

    p("## Logging cost\n")
    p("quarvel notices the end of a transfer at its next 250 ms poll, so its wall time moves in "
      "steps of 250 ms; CPU time shows smaller differences.\n")
    p("| size | default threshold (error) s | --log-level=info, stderr to /dev/null s "
      "| info / default | CPU s default | CPU s info | info / default (CPU) |")
    p("|---|--:|--:|--:|--:|--:|--:|")
    for size, (default, info) in log_results.items():
        p(f"| {human_size(size)} | {default['time']:.3f} | {info['time']:.3f} "
          f"| {info['time'] / default['time']:.3f} | {default['cpu']:.2f} | {info['cpu']:.2f} "
          f"| {info['cpu'] / default['cpu']:.3f} |")
    p("")

    big = max(sizes)
    p("## Targets (read from the table)\n")
    p("- quarvel at least as fast as the h5py reference writer, both whole processes as a user "
      "runs them: "
      + ", ".join(f"{human_size(s)} {ratios[s]['quarvel/reference_process']:.2f}" for s in sizes)
      + verdict(ratios[s]["quarvel/reference_process"] >= 1.0 for s in sizes)
      + "; against the writer's inner loop alone: "
      + ", ".join(f"{human_size(s)} {ratios[s]['quarvel/reference']:.2f}" for s in sizes)
      + verdict(ratios[s]["quarvel/reference"] >= 1.0 for s in sizes))
    p("- quarvel at least 90% of the single-thread zlib bound, end to end: "
      + ", ".join(f"{human_size(s)} {ratios[s]['quarvel/zlib']:.2f}" for s in sizes)
      + verdict(ratios[s]["quarvel/zlib"] >= 0.9 for s in sizes)
      + "; its pipeline alone: "
      + ", ".join(f"{human_size(s)} {ratios[s]['pipeline/zlib']:.2f}" for s in sizes)
      + verdict(ratios[s]["pipeline/zlib"] >= 0.9 for s in sizes))
    rss = results[big]["quarvel"]["rss"]
    rss_max = results[big]["quarvel"]["rss_max"]
    p(f"- peak RSS under 64 MiB for the {human_size(big)} recording: median {rss:.1f} MiB, "
      f"largest {rss_max:.1f} MiB"
      + (" (met)" if rss_max < 64 else " (met by the median, missed by the largest)" if rss < 64
         else " (missed)"))
    return ratios


def verdict(passes):
    passes = list(passes)
    return " (met)" if all(passes) else " (missed where below)" if any(passes) else " (missed)"


def write_csv(path, machine, results, log_results, ratios, sizes):
    with open(path, "w", newline="") as f:
        w = csv.writer(f)
        w.writerow(["size_bytes", "item", "metric", "median", "runs"])
        for size in sizes:
            for key, _, _ in ITEMS:
                s = results[size][key]
                for metric, _, column in METRICS:
                    w.writerow([size, key, column, f"{s[metric]:.6g}",
                                " ".join(f"{v:.6g}" for v in s["raw"][metric])])
                w.writerow([size, key, "mb_per_s", f"{s['mbps']:.6g}", ""])
                if s["poll_wait"] is not None:
                    w.writerow([size, key, "poll_wait_s", f"{s['poll_wait']:.6g}", ""])
                if s["compression"] is not None:
                    w.writerow([size, key, "compression_ratio", f"{s['compression']:.6g}", ""])
            for name, value in ratios[size].items():
                w.writerow([size, "ratio", name, f"{value:.6g}", ""])
        for size, (default, info) in log_results.items():
            for item, s in (("quarvel_log_default", default), ("quarvel_log_info", info)):
                for metric in ("time", "cpu"):
                    w.writerow([size, item, f"{metric}_s", f"{s[metric]:.6g}",
                                " ".join(f"{v:.6g}" for v in s["raw"][metric])])
        w.writerow(["", "machine", "description",
                    f"{machine['cpu']}; {machine['cores']} cores; {machine['date']}", ""])


def write_plot(path, results, sizes):
    try:
        import matplotlib
        matplotlib.use("Agg")
        import matplotlib.pyplot as plt
    except ImportError:
        log("matplotlib not installed: no plot")
        return None
    keys = ["quarvel", "reference", "zlib", "sink"]
    width = 0.8 / len(keys)
    fig, ax = plt.subplots(figsize=(8, 5.5))
    for i, key in enumerate(keys):
        xs = [j + (i - (len(keys) - 1) / 2) * width for j in range(len(sizes))]
        ax.bar(xs, [results[s][key]["mbps"] for s in sizes], width, label=LABELS[key])
    ax.set_xticks(range(len(sizes)))
    ax.set_xticklabels([human_size(s) for s in sizes])
    ax.set_ylabel("MB/s of recording (median)")
    ax.set_title("quarvel --conf=mock: throughput")
    ax.legend(fontsize="small", loc="upper center", bbox_to_anchor=(0.5, -0.1), ncol=2)
    fig.tight_layout()
    fig.savefig(path, dpi=100)
    plt.close(fig)
    return path


# ---------------------------------------------------------------------------------------------


def parse_args():
    parser = argparse.ArgumentParser(prog="bench/run", description=__doc__.split("\n\n")[0])
    parser.add_argument("--runs", type=int, help="runs per figure, median taken (default 3, "
                        "1 with --quick)")
    parser.add_argument("--quick", action="store_true", help="smoke run: 4 and 16 MiB")
    parser.add_argument("--sizes", help="recording sizes in MiB, comma-separated "
                        "(default 64,256,1024)")
    parser.add_argument("--build-dir", default=os.path.join(REPO, "build-bench"),
                        help="build tree to configure and use (default: build-bench)")
    parser.add_argument("--no-build", action="store_true", help="use the build tree as it is")
    parser.add_argument("--no-verify", action="store_true",
                        help="skip checking every sample of the files of the first run")
    parser.add_argument("--tmpdir", default=None, help="where the recordings are written "
                        "(default: the system's temporary directory)")
    parser.add_argument("--results-dir", default=os.path.join(HERE, "results"))
    args = parser.parse_args()
    if args.runs is None:
        args.runs = 1 if args.quick else 3
    if args.runs < 1:
        parser.error("--runs must be at least 1")
    if args.sizes:
        try:
            sizes = [int(float(x) * MiB) for x in args.sizes.split(",")]
        except ValueError:
            parser.error("--sizes takes numbers of MiB, e.g. 64,256")
        args.sizes = sizes
    else:
        args.sizes = QUICK_SIZES if args.quick else FULL_SIZES
    for size in args.sizes:
        if size < 16 * 1024 or size % 4 or size >= 4 * GiB:
            parser.error("each size must be a multiple of 4 bytes, at least 16 KiB, below 4 GiB")
    args.log_size = LOG_SIZE if LOG_SIZE in args.sizes else max(args.sizes)
    args.build_dir = os.path.abspath(args.build_dir)
    return args


def main():
    args = parse_args()
    if not os.access(TIME, os.X_OK):
        raise BenchError(f"{TIME} not found: run 'bash scripts/install-deps.sh' (package time)")
    import h5py
    import numpy

    if not args.no_build:
        build(args)
    bench = Bench(args, sys.executable)
    try:
        info = bench.helper_info()
        build_type = "?"
        try:
            with open(os.path.join(args.build_dir, "CMakeCache.txt")) as f:
                found = re.search(r"^CMAKE_BUILD_TYPE:\w+=(.*)$", f.read(), re.M)
                build_type = found.group(1) if found else "?"
        except OSError:
            pass
        machine = {
            "date": datetime.datetime.now().strftime("%Y-%m-%d %H:%M"),
            "cpu": cpu_model(),
            "cores": os.cpu_count(),
            "usable": len(os.sched_getaffinity(0)),
            "mem": memory_gib(),
            "kernel": f"{platform.system()} {platform.release()}",
            "build_type": build_type,
            "compiler": info.get("compiler", "?"),
            "hdf5": info.get("hdf5", "?"),
            "zlib": info.get("zlib", "?"),
            "python": platform.python_version(),
            "h5py": h5py.__version__,
            "h5py_hdf5": h5py.version.hdf5_version,
            "numpy": numpy.__version__,
        }
        runners = {
            "quarvel": bench.quarvel_run,
            "pipeline": bench.pipeline_run,
            "reference": bench.reference_run,
            "zlib": bench.zlib_run,
            "source_decoder": bench.source_decoder_run,
            "sink": bench.sink_run,
        }
        samples = {size: {key: [] for key in runners} for size in args.sizes}
        log_info = []
        load_before = os.getloadavg()[0]
        busy0, steal0 = busy_seconds()
        own0 = own_cpu_seconds()
        start = time.perf_counter()
        for run in range(args.runs):
            for size in args.sizes:
                verify = run == 0 and not args.no_verify
                for key, _, _ in ITEMS:
                    sample = runners[key](size, verify=verify)
                    samples[size][key].append(sample)
                    log(f"run {run + 1}/{args.runs}, {human_size(size)}, {key}: "
                        f"{sample.timed:.3f} s, peak RSS {sample.rss_mib:.1f} MiB"
                        + (", file checked" if verify and sample.file_bytes else ""))
                    if key == "quarvel" and size == args.log_size:
                        sample = bench.quarvel_run(size, log_level="info")
                        log_info.append(sample)
                        log(f"run {run + 1}/{args.runs}, {human_size(size)}, quarvel "
                            f"--log-level=info: {sample.timed:.3f} s")
        seconds = time.perf_counter() - start
        busy1, steal1 = busy_seconds()
        own = own_cpu_seconds() - own0
        load = {
            "before": load_before,
            "after": os.getloadavg()[0],
            "seconds": seconds,
            "others": max(0.0, (busy1 - busy0 - own) / seconds),
            "steal": (steal1 - steal0) / seconds,
        }
    finally:
        bench.close()

    results = {size: {key: summarise(samples[size][key], size) for key in runners}
               for size in args.sizes}
    log_results = {args.log_size: (results[args.log_size]["quarvel"],
                                   summarise(log_info, args.log_size))}
    # The default-threshold figure is taken from the same runs as the results table.
    ratios = print_report(args, machine, results, log_results, args.sizes, load)

    os.makedirs(args.results_dir, exist_ok=True)
    stamp = datetime.datetime.now().strftime("%Y%m%d-%H%M%S")
    csv_path = os.path.join(args.results_dir, f"bench-{stamp}.csv")
    write_csv(csv_path, machine, results, log_results, ratios, args.sizes)
    plot = write_plot(os.path.join(args.results_dir, f"bench-{stamp}.png"), results,
                      args.sizes)
    print(f"\nCSV: {os.path.relpath(csv_path, REPO)}"
          + (f"; plot: {os.path.relpath(plot, REPO)}" if plot else ""))


if __name__ == "__main__":
    try:
        main()
    except BenchError as error:
        sys.exit(f"bench: {error}")
    except KeyboardInterrupt:
        sys.exit("bench: interrupted")
