#!/usr/bin/env python3
"""FW_NETWORK_DOT's graphs parse with Graphviz and have the expected nodes
and edges.

    network_dot_test.py QVA network_dot.pro

Runs the script (with the leak check) in a scratch folder, reads back the
graphs it wrote through `dot -Tjson0`, names each node after the objects the
script lists, and compares the edges (tail, head, label) with the network's
known shape.  Exits 77 (skipped) when Graphviz is not installed.
"""
import json
import re
import shutil
import subprocess
import sys
import tempfile

TOP = "TOP"

WHOLE = {
    (TOP, "A", ""), ("A", "B", ""),
    (TOP, TOP + " Go", ""), (TOP, TOP + " Idle", ""), ("A", "A Msg", ""), ("B", "B Msg", ""),
    ("A Msg", "Y", "1"), ("B Msg", "X", "1"), ("B Msg", "O", "2"),
    (TOP + " Go", "P", "1"), (TOP + " Go", "D", "2"), (TOP + " Idle", "TRIGGER", "1"),
    ("B", "U", "not registered"),
    ("O", "T", "Poke"), ("P", "PRO Note_It", ""), ("TRIGGER", "D", "DELAYEXECUTE"),
}
BELOW_B = {
    ("B", "B Msg", ""), ("B Msg", "X", "1"), ("B Msg", "O", "2"), ("O", "T", "Poke"),
    ("B", "D", "registered, listed elsewhere"), ("B", "TRIGGER", "registered, listed elsewhere"),
    ("TRIGGER", "D", "DELAYEXECUTE"), ("B", "U", "not registered"),
}


def graph(path):
    text = subprocess.run(["dot", "-Tjson0", path], check=True, capture_output=True,
                          text=True).stdout
    return json.loads(text)


def named(graph_json, names):
    """Node names with object references replaced by the script's names."""
    refs = dict(names)
    for node in graph_json["objects"]:
        if node.get("label") == "top-level handler":
            refs[re.fullmatch(r"(<ObjHeapVar\d+\([A-Z]+\)>)", node["name"]).group(1)] = TOP
    def rename(name):
        return re.sub(r"<ObjHeapVar\d+\([A-Z_?]+\)>", lambda m: refs.get(m.group(0), m.group(0)), name)
    return [rename(node["name"]) for node in graph_json["objects"]], graph_json["objects"]


def edges(graph_json, nodes):
    return {(nodes[e["tail"]], nodes[e["head"]], e.get("label", ""))
            for e in graph_json.get("edges", [])}


def check(what, got, expected):
    if got != expected:
        print(f"{what}: missing {sorted(expected - got)}, unexpected {sorted(got - expected)}")
        return False
    return True


def main():
    qva, script = sys.argv[1], sys.argv[2]
    if not shutil.which("dot"):
        print("Graphviz (dot) is not installed: skipped")
        return 77
    with tempfile.TemporaryDirectory() as work:
        run = subprocess.run([qva, "--check-leaks", script], cwd=work, capture_output=True,
                             text=True)
        if run.returncode != 0:
            print(run.stdout, run.stderr)
            return 1
        names = re.findall(r"^object (\w+) (<ObjHeapVar\d+\([A-Z_]+\)>)$", run.stdout, re.M)
        names = [(ref, name) for name, ref in names]
        ok = True
        for file, expected in (("chain.dot", WHOLE), ("below_b.dot", BELOW_B)):
            g = graph(f"{work}/{file}")
            nodes, objects = named(g, names)
            ok &= check(file + " edges", edges(g, nodes), expected)
            ends = {n for e in expected for n in e[:2]}
            ok &= check(file + " nodes", set(nodes), ends)
            if file == "chain.dot":
                # The message text keeps its quotes and backslash through Graphviz.
                label = objects[nodes.index("U")]["label"]
                ok &= check("U's label", {label}, {'U\\nTELL\\nruns TELL::EXECUTE\\nfor \'Say "hi" \\\\ there\''})
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
