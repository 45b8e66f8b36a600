#!/usr/bin/env python3
"""Holds tools/checklayers against small trees: a good one, and one per fault that it has to find."""

import pathlib
import subprocess
import sys
import tempfile

GOOD = {
    "include/velmora/export.h": "#pragma once\n#if defined(_WIN32)\n#endif\n",
    "core/platform/pool.h": "#pragma once\n#include <cstdint>\n",
    "core/platform/linux/pool.cpp":
        '#include "core/platform/pool.h"\n#include <unistd.h>\n#include "core/types/mutex.h"\n',
    "core/types/mutex.h": "#pragma once\n",
    "core/utils/task.h": '#pragma once\n#include "core/platform/pool.h"\n#include "velmora/export.h"\n',
    "core/utils/task.cpp": '#include "core/utils/task.h"\n',
    "ingest/session/session.h": '#pragma once\n#include "core/utils/task.h"\n',
    "ingest/main/instance.h": '#pragma once\n#include "core/utils/task.h"\n',
    "ingest/main/instance.cpp": '#include "ingest/main/instance.h"\n#include "ingest/session/session.h"\n',
    "ingest/event/event.h": "#pragma once\n",
    "ingest/event/store/store.h": '#pragma once\n#include "ingest/event/event.h"\n',
    "tests/support/fake.h": '#pragma once\n#include "ingest/session/session.h"\n#include <unistd.h>\n',
}
# file, its text, and what the complaint says.
FAULTS = [
    ("core/platform/pool.h", '#pragma once\n#include "core/utils/task.h"\n', "must not see core/utils"),
    ("core/utils/task.h", '#pragma once\n#include "tests/support/fake.h"\n', "must not see tests"),
    ("ingest/main/instance.h", '#pragma once\n#include "ingest/session/session.h"\n', "must not see ingest/session"),
    ("core/utils/task.h", "#pragma once\n#include <unistd.h>\n", "OS header <unistd.h>"),
    ("core/utils/task.h", "#pragma once\n#include <Windows.h>\n", "OS header <Windows.h>"),
    ("core/platform/pool.h", "#pragma once\n#include <sys/stat.h>\n", "OS header <sys/stat.h>"),
    ("core/utils/task.cpp", '#include "core/utils/task.h"\n#ifdef __linux__\n#endif\n', "conditional on the operating"),
    ("core/utils/task.cpp", '#include "core/utils/task.h"\n#  elif defined(_WIN32)\n', "conditional on the operating"),
    ("core/platform/pool.h", "#pragma once\n#ifdef ANYTHING\n#endif\n", "conditional in a header of an edge"),
    ("ingest/event/event.h", '#pragma once\n#include "ingest/event/store/store.h"\n', "must not see ingest/event/store"),
    ("core/utils/task.h", "int x;\n", "no #pragma once"),
    ("core/utils/task.cpp", '#include <vector>\n#include "core/utils/task.h"\n', "the first include is not"),
    ("core/utils/task.cpp", '#include "core/utils/task.h"\n#include "pool.h"\n', "not a path from the root"),
]


def run(script, tree):
    with tempfile.TemporaryDirectory() as folder:
        for name, text in tree.items():
            path = pathlib.Path(folder, name)
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text, encoding="utf-8")
        return subprocess.run([sys.executable, script, folder], capture_output=True, text=True)


def main():
    script = sys.argv[1]
    failures = 0
    good = run(script, GOOD)
    if good.returncode != 0:
        print("the good tree is refused:\n" + good.stdout + good.stderr)
        failures += 1
    for name, text, complaint in FAULTS:
        result = run(script, {**GOOD, name: text})
        lines = result.stdout.splitlines()
        if result.returncode != 1 or not any(name in line and complaint in line for line in lines):
            print(f"not found: {name}: {complaint}\n{result.stdout}{result.stderr}")
            failures += 1
    if run(script, {}).returncode == 0:
        print("an empty tree is accepted")
        failures += 1
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
