#!/usr/bin/env python3
"""Writes the scenario with which velmora-faketool plays every sibling tool for
a tryout of the tray application: velmora-conductor-onboard as in
conductor-onboard.json (copied beside it, since a set-up run writes its state
there), and meterly and vantor-accounts with a few seats whose reset times lie
a little after now, so the subscription cards read like a working day.

    desktop.py OUTPUT_DIRECTORY   prints the scenario file's path
"""
import datetime
import json
import pathlib
import sys

here = pathlib.Path(__file__).resolve().parent
out = pathlib.Path(sys.argv[1])
out.mkdir(parents=True, exist_ok=True)
now = datetime.datetime.now(datetime.timezone.utc).replace(microsecond=0)


def at(**delta):
    return (now + datetime.timedelta(**delta)).strftime("%Y-%m-%dT%H:%M:%SZ")


def window(kind, label, used, **resets):
    return {"kind": kind, "label": label, "used_pct": used, "resets_at": at(**resets)}


def seat(ident, provider, label, account, windows, **extra):
    return {"id": ident, "provider": provider, "provider_label": label, "account": account,
            "live": True, "note": "", "advice": {"verb": "ok", "reason": ""},
            "windows": windows, **extra}


seats = [
    seat("claude:work", "claude", "Claude", "work",
         [window("session", "5h", 41, hours=2, minutes=10),
          window("weekly", "7d", 76, days=3, hours=4)],
         email="work@acme.example", plan="Max", role="operator", short="cl",
         binding="7d", binding_pct=76, status="warn",
         advice={"verb": "hold", "reason": "weekly window at 76%"}),
    seat("codex:team", "codex", "Codex", "team",
         [window("session", "5h", 12, hours=4), window("weekly", "7d", 31, days=5)],
         plan="Pro", role="build", short="cx", status="ok"),
    seat("kimi:main", "kimi", "Kimi", "main",
         [window("monthly", "30d", 93, days=11)],
         plan="Moderato", role="review", status="capped",
         advice={"verb": "top-up", "reason": "monthly quota nearly spent"}),
    seat("openrouter:credits", "openrouter", "OpenRouter", "credits",
         [{"kind": "credits", "label": "credits", "remaining": 12.5, "currency": "USD"}],
         status="ok"),
]
reading = {
    "fetched_at": at(),
    "seats": seats,
    "alerts": ["kimi:main monthly window at 93%"],
    "alerts_detail": [{"seat": "kimi:main", "title": "Kimi · main", "short": "km",
                       "human": "monthly window at 93%", "status": "capped"}],
    "next": {"operator": "claude:work", "build": "codex:team", "review": "codex:team"},
    "timeline": [{"seat": s["id"], "label": w["label"], "resets_at": w["resets_at"]}
                 for s in seats for w in s["windows"] if "resets_at" in w],
}
accounts = (f"*\twork\twork@acme.example\t41\t{at(hours=2, minutes=10)}\t76\t{at(days=3, hours=4)}"
            "\t\t30d\t\n"
            f"-\tspare\tspare@acme.example\t3\t{at(hours=5)}\t18\t{at(days=6)}\t\t12d\t\n")

runs = [
    {"tool": "meterly", "args": ["status", "--json"],
     "steps": [{"sleep": 0.3}, {"stdout": json.dumps(reading) + "\n"}]},
    {"tool": "vantor-accounts", "args": ["--tsv", "status"], "steps": [{"stdout": accounts}]},
    {"tool": "vantor-accounts", "args": ["alerts"], "steps": []},
    {"tool": "vantor-accounts", "args": ["whoami"], "steps": [{"stdout": "work\n"}]},
    {"tool": "vantor-accounts", "args": ["pick"], "steps": [{"stdout": "spare\n"}]},
    {"tool": "vantor-accounts", "args_prefix": ["use"], "steps": [{"stdout": "switched\n"}]},
]
runs += json.loads((here / "conductor-onboard.json").read_text())["runs"]
path = out / "desktop.json"
path.write_text(json.dumps({"runs": runs}, indent=1))
print(path)
