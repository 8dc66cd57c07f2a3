#!/usr/bin/env python3
"""The library's folders form layers; a folder may use only its own and lower ones.

Checks, over src/: every quoted include points at the same or a lower layer;
member functions are defined in the folder that declares their class; the
pairing core's folder makes no system call and reads no clock.
Prints every violation and exits non-zero when there is one.
"""
import pathlib
import re
import sys

LAYERS = ["common", "sensor", "timing", "pipeline", "run", "driver", "api"]
PURE = "pipeline"
SYSTEM_HEADERS = re.compile(r'#include\s*<(sys/[^>]*|poll\.h|unistd\.h|fcntl\.h|time\.h|linux/[^>]*|ctime|thread|chrono)>')
CLOCK_USE = re.compile(r'\b(clock_gettime|read_raw_ns|read_clock_ns|sleep_ns|sleep_ms|nanosleep)\b|"common/clock\.hpp"')
INCLUDE = re.compile(r'#include\s+"([a-z_]+)/[^"]+"')
DECLARED = re.compile(r'^\s*(?:class|struct)\s+(\w+)\b(?!;)', re.M)
DEFINED = re.compile(r'^[\w:<>,&\*\s]*?\b(\w+)::~?\w+\s*\(', re.M)


def main(root: pathlib.Path) -> int:
    src = root / "src"
    errors = []
    owner = {}
    for header in src.rglob("*.hpp"):
        for name in DECLARED.findall(header.read_text()):
            owner.setdefault(name, header.parent.name)
    for path in sorted(src.rglob("*")):
        if path.suffix not in (".hpp", ".cpp"):
            continue
        folder = path.parent.name
        if folder not in LAYERS:
            continue
        text = path.read_text()
        rel = path.relative_to(root)
        for target in INCLUDE.findall(text):
            if target in LAYERS and LAYERS.index(target) > LAYERS.index(folder):
                errors.append(f"{rel}: includes {target}/, a higher layer than {folder}/")
        if path.suffix == ".cpp":
            for cls in DEFINED.findall(text):
                home = owner.get(cls)
                if home is not None and home != folder:
                    errors.append(f"{rel}: defines a member of {cls}, which belongs to {home}/")
        if folder == PURE:
            for line in text.splitlines():
                if SYSTEM_HEADERS.search(line) or CLOCK_USE.search(line):
                    errors.append(f"{rel}: system or clock use in the pure core: {line.strip()}")
    for e in errors:
        print(e)
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main(pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ".")))
