#!/usr/bin/env python3
"""Chaos run of the host's processes.

Starts `tevash serve` and a director on a private runtime directory, lets several
application processes create, set, import and remove through the service while a
driver SIGKILLs, SIGSTOPs and restarts the service and the director at random
moments, then checks what the applications were told against the store:

- every change an application was told succeeded is there (unless it removed it),
- nothing it was told failed was done,
- answers that said the outcome is unknown are counted (either way is right),
- `tevash check` finds the store clean (or `check --repair` makes it so) and
  SQLite's integrity_check is ok,
- the system answers within 1 s of the last restart.

Prints its figures on one line and exits 0 only when nothing was lost or wrong.
Usage: chaos.py --tevash PATH [--seconds N] [--apps K] [--seed S]
"""
import argparse
import os
import random
import signal
import sqlite3
import subprocess
import sys
import tempfile
import threading
import time

MEMBER = "0x00360000"
UNKNOWN = "outcome is unknown"


class Chaos:
    def __init__(self, args):
        self.args = args
        self.rng = random.Random(args.seed)
        self.dir = tempfile.mkdtemp(prefix="tevash-chaos.")
        os.chmod(self.dir, 0o700)
        self.env = dict(os.environ, TEVASH_RUNTIME_DIR=self.dir,
                        TEVASH_HOST_IPC_TIMEOUT_MS=str(args.timeout_ms), TEVASH_HOST_TRACE="none")
        self.procs = {}
        self.lock = threading.Lock()
        self.stop = threading.Event()
        self.figures = dict(kills=0, stops=0, terms=0, requests=0, succeeded=0, failed=0,
                            unknown=0, lost=0, wrong=0)
        self.last_restart = time.monotonic()
        self.problems = []

    # -- processes -------------------------------------------------------
    def start(self, role):
        cmd = [self.args.tevash, "serve"] if role == "service" else \
            [self.args.tevash, "director", "--app-type", "1"]
        log = open(os.path.join(self.dir, role + ".log"), "ab")
        p = subprocess.Popen(cmd, env=self.env, stdout=subprocess.PIPE, stderr=log,
                             stdin=subprocess.DEVNULL)
        log.close()
        line = p.stdout.readline().decode(errors="replace").strip()
        if line != "ready":
            p.kill()
            p.wait()
            return False
        self.procs[role] = p
        self.last_restart = time.monotonic()
        return True

    def ensure(self, role):
        p = self.procs.get(role)
        if p is not None and p.poll() is None:
            return True
        for _ in range(50):
            if self.start(role):
                return True
            time.sleep(0.1)
        self.problems.append("%s does not start again" % role)
        return False

    def end(self, role, sig):
        p = self.procs.get(role)
        if p is None or p.poll() is not None:
            return
        p.send_signal(signal.SIGCONT)
        p.send_signal(sig)
        try:
            p.wait(timeout=10)
        except subprocess.TimeoutExpired:
            self.problems.append("%s did not stop within 10 s of signal %d" % (role, sig))
            p.kill()
            p.wait()

    def driver(self):
        while not self.stop.wait(self.rng.uniform(0.3, 1.5)):
            role = self.rng.choice(["service", "director", "director"])
            action = self.rng.choice(["kill", "stop", "term"])
            with self.lock:
                if action == "kill":
                    self.end(role, signal.SIGKILL)
                    self.figures["kills"] += 1
                    self.ensure(role)
                elif action == "term":
                    self.end(role, signal.SIGTERM)
                    self.figures["terms"] += 1
                    self.ensure(role)
                else:
                    p = self.procs.get(role)
                    if p is None or p.poll() is not None:
                        continue
                    p.send_signal(signal.SIGSTOP)
                    self.figures["stops"] += 1
            if action == "stop":
                time.sleep(self.rng.uniform(0.2, 2.0 * self.args.timeout_ms / 1000))
                with self.lock:
                    p = self.procs.get(role)
                    if p is not None:
                        p.send_signal(signal.SIGCONT)

    # -- applications ----------------------------------------------------
    def run(self, *cmd, stdin=None):
        r = subprocess.run([self.args.tevash] + list(cmd), env=self.env, input=stdin,
                           capture_output=True, text=True, timeout=120)
        with self.lock:
            self.figures["requests"] += 1
            if r.returncode == 0:
                self.figures["succeeded"] += 1
                return "ok", r.stdout
            if UNKNOWN in r.stderr:
                self.figures["unknown"] += 1
                return "unknown", r.stdout
            self.figures["failed"] += 1
            return "failed", r.stderr

    def application(self, index, mine):
        """One application: `mine` maps each handler it made to what it was told since:
        state "present", "removed" or "maybe" (a remove whose outcome is unknown), and the
        member values it may hold (None: never set, "any": imported)."""
        rng = random.Random(self.args.seed * 1000 + index)
        serial = 0
        while not self.stop.is_set():
            op = rng.choice(["create", "create", "set", "set", "remove", "import"])
            known = [h for h, e in mine.items() if e["state"] == "present"]
            if op == "create" or not known:
                outcome, out = self.run("create", "APLJOB")
                if outcome == "ok":
                    mine[int(out.split()[0])] = dict(state="present", values={None})
            elif op == "set":
                h = rng.choice(known)
                serial += 1
                value = index * 1000000 + serial
                outcome, _ = self.run("set", str(h), MEMBER, str(value), "--type", "i32")
                if outcome == "ok":
                    mine[h]["values"] = {value}
                elif outcome == "unknown":
                    mine[h]["values"].add(value)
            elif op == "remove":
                h = rng.choice(known)
                outcome, _ = self.run("remove", str(h))
                if outcome == "ok":
                    mine[h]["state"] = "removed"
                elif outcome == "unknown":
                    mine[h]["state"] = "maybe"
            else:
                outcome, tree = self.run("export", str(rng.choice(known)))
                if outcome != "ok":
                    continue
                outcome, out = self.run("import", "-", stdin=tree)
                if outcome == "ok":
                    mine[int(out.split()[0])] = dict(state="present", values={"any"})

    # -- checks ----------------------------------------------------------
    def answers_within(self, seconds):
        """Restarts nothing; measures how soon after the last restart a create succeeds."""
        deadline = self.last_restart + seconds
        while time.monotonic() < deadline + 5:
            r = subprocess.run([self.args.tevash, "create", "APLJOB"], env=self.env,
                               capture_output=True, text=True, timeout=60)
            if r.returncode == 0:
                took = time.monotonic() - self.last_restart
                subprocess.run([self.args.tevash, "remove", r.stdout.split()[0]], env=self.env,
                               capture_output=True, timeout=60)
                return took
            time.sleep(0.02)
        return None

    def verify(self, ledgers):
        store = os.path.join(self.dir, "store.db")
        db = sqlite3.connect("file:%s?mode=ro" % store, uri=True)
        ok = db.execute("PRAGMA integrity_check").fetchone()[0]
        db.close()
        if ok != "ok":
            self.problems.append("integrity_check: " + ok)
        check = subprocess.run([self.args.tevash, "check"], env=self.env, capture_output=True,
                               text=True, timeout=300)
        if check.returncode != 0:
            repair = subprocess.run([self.args.tevash, "check", "--repair"], env=self.env,
                                    capture_output=True, text=True, timeout=300)
            again = subprocess.run([self.args.tevash, "check"], env=self.env,
                                   capture_output=True, text=True, timeout=300)
            if repair.returncode != 0 or again.returncode != 0:
                self.problems.append("check --repair did not leave a clean store: " +
                                     (again.stdout + again.stderr).strip()[:300])
        for mine in ledgers:
            for h, e in mine.items():
                if e["state"] == "maybe":
                    continue
                r = self.tool("members", str(h), "--json")
                if r.returncode != 0 and "no handler" not in r.stderr:
                    self.problems.append("handler %d cannot be read: %s" % (h, r.stderr.strip()))
                    continue
                exists = r.returncode == 0
                if e["state"] == "present" and not exists:
                    self.figures["lost"] += 1
                    self.problems.append("handler %d was made, now lost" % h)
                elif e["state"] == "removed" and exists:
                    self.figures["wrong"] += 1
                    self.problems.append("handler %d was removed, still there" % h)
                elif e["state"] == "present" and None not in e["values"] and \
                        "any" not in e["values"]:
                    r = self.tool("get", str(h), MEMBER, "--type", "i32")
                    value = int(r.stdout.split()[-1], 0) if r.returncode == 0 else None
                    if value not in e["values"]:
                        self.figures["lost"] += 1
                        self.problems.append("handler %d holds %s, expected one of %s" %
                                             (h, value, sorted(e["values"])))

        # Nothing an application was told failed was made: every root record in the
        # store is one an application was told about, or one of the answers whose
        # outcome was unknown.
        tree = self.tool("tree")
        roots = {int(line.split()[0]) for line in tree.stdout.splitlines()
                 if line[:1].isdigit()}
        told = {h for mine in ledgers for h, e in mine.items() if e["state"] != "removed"}
        extra = roots - told
        if len(extra) > self.figures["unknown"]:
            self.figures["wrong"] += len(extra) - self.figures["unknown"]
            self.problems.append("%d handlers exist that no application was told were made "
                                 "(%d answers said the outcome is unknown): %s" %
                                 (len(extra), self.figures["unknown"], sorted(extra)[:10]))

    def tool(self, *cmd):
        return subprocess.run([self.args.tevash] + list(cmd), env=self.env,
                              capture_output=True, text=True, timeout=300)

    def main(self):
        if not (self.ensure("service") and self.ensure("director")):
            print("chaos: the service or the director does not start", file=sys.stderr)
            return 1
        ledgers = [dict() for _ in range(self.args.apps)]
        apps = [threading.Thread(target=self.application, args=(i, ledgers[i]))
                for i in range(self.args.apps)]
        driver = threading.Thread(target=self.driver)
        for t in apps + [driver]:
            t.start()
        time.sleep(self.args.seconds)
        self.stop.set()
        driver.join()
        for t in apps:
            t.join()
        with self.lock:
            for role in ("service", "director"):
                p = self.procs.get(role)
                if p is not None and p.poll() is None:
                    p.send_signal(signal.SIGCONT)
            self.end("director", signal.SIGKILL)
            self.end("service", signal.SIGKILL)
            self.ensure("service")
            self.ensure("director")
        took = self.answers_within(1.0)
        if took is None or took > 1.0:
            self.problems.append("the system did not answer within 1 s of the last restart (%s)" %
                                 ("never" if took is None else "%.2f s" % took))
        self.verify(ledgers)
        for role in ("director", "service"):
            self.end(role, signal.SIGTERM)
        f = self.figures
        print("chaos: %d s, %d apps, kills %d, stops %d, terms %d, requests %d, succeeded %d, "
              "failed %d, unknown %d, lost %d, wrong %d, answered %.0f ms after the last restart"
              % (self.args.seconds, self.args.apps, f["kills"], f["stops"], f["terms"],
                 f["requests"], f["succeeded"], f["failed"], f["unknown"], f["lost"], f["wrong"],
                 -1 if took is None else took * 1000))
        for p in self.problems[:20]:
            print("chaos: " + p, file=sys.stderr)
        if not self.problems:
            subprocess.run(["rm", "-rf", self.dir])
        else:
            print("chaos: runtime directory kept: " + self.dir, file=sys.stderr)
        return 0 if not self.problems else 1


def parse():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--tevash", required=True, help="the tevash binary")
    ap.add_argument("--seconds", type=int, default=30)
    ap.add_argument("--apps", type=int, default=4)
    ap.add_argument("--seed", type=int, default=int(time.time()))
    ap.add_argument("--timeout-ms", type=int, default=3000,
                    help="TEVASH_HOST_IPC_TIMEOUT_MS of every process")
    return ap.parse_args()


if __name__ == "__main__":
    sys.exit(Chaos(parse()).main())
