# SPDX-License-Identifier: Apache-2.0
#
# What scripts/prove.d/20-model and scripts/check-orders share: the places of the models in the code, and
# runs of spin. A model's comment "file function: text" says what a macro stands for.
import os
import pathlib
import re
import subprocess

ROOT = pathlib.Path(__file__).resolve().parents[3]
MODELS = pathlib.Path(__file__).resolve().parent
BUILD = ROOT / "build" / "models"
PROPERTIES = ("", "torn", "order", "stays", "damage", "ends", "news", "told")

# Smallest first: a weakening is tried on one after the other. The flag says whether the short run has it.
CONFIGURATIONS = {
    "table": [
        ({"OPS": 2, "READER": "ITERATES"}, False),
        ({"OPS": 2, "READER": "LOOKS_UP"}, False),
        ({"OPS": 1, "READER": "ITERATES"}, True),
        ({"OPS": 1, "READER": "LOOKS_UP"}, True),
        ({"OPS": 3, "READER": "LOOKS_UP", "LOOKUPS": 1}, False),
    ],
    "queue": [
        ({"SLOTS": 2, "ROOM": 2, "MOST": 4, "WRITES": 3}, True),
        ({"SLOTS": 1, "ROOM": 2, "MOST": 2, "WRITES": 4}, False),
        ({"SLOTS": 1, "ROOM": 2, "MOST": 2, "WRITES": 5}, False),
        ({"SLOTS": 2, "ROOM": 2, "MOST": 4, "WRITES": 4}, False),
    ],
}


def text_of(model):
    return (MODELS / f"{model}.pml").read_text()


def places(model):
    """Macro -> (file, function, text) for each order of a model."""
    found = re.findall(r"^#define ([SL]_\w+) \w+ +/\* (\S+) (\w+): (.*?) \*/$", text_of(model), re.M)
    return {macro: (file, function, text) for macro, file, function, text in found}


def swaps(model):
    return sorted(set(re.findall(r"^#ifn?def (SWAP_\w+)", text_of(model), re.M)))


def flat(text):
    return re.sub(r"\s+", "", text)


def missing_places():
    """What the models name and the code has no more."""
    wrong = []
    for model in CONFIGURATIONS:
        for macro, (file, function, text) in places(model).items():
            path = ROOT / file
            code = path.read_text() if path.is_file() else ""
            if not re.search(rf"\b{function}\b", code) or flat(text) not in flat(code):
                wrong.append(f"{model}.pml {macro}: {file} has no {function}() with {text}")
        # "QuillWriter-inl.h find(), write()" in front of what stands for them.
        for file, functions in re.findall(r"([\w-]+\.(?:h|cc)) ((?:[\w:]+\(\)(?:, | and | or )?)+)",
                                          text_of(model)):
            code = (ROOT / "quill" / file).read_text() if (ROOT / "quill" / file).is_file() else ""
            for function in re.findall(r"(\w+)\(\)", functions):
                if not re.search(rf"\b{function}\(", code):
                    wrong.append(f"{model}.pml: quill/{file} has no {function}()")
    return wrong


class Result:
    def __init__(self, states, violated, complete):
        self.states = states      # that were visited
        self.violated = violated  # a property's name, or None
        self.complete = complete  # all states were visited


def check(model, macros, limit):
    """One run of spin, of `limit` seconds at most. Raises if it cannot be run."""
    name = "-".join([model] + [f"{key}.{value}" for key, value in sorted(macros.items())])
    folder = BUILD / name
    folder.mkdir(parents=True, exist_ok=True)
    defines = [f"-D{key}={value}" if value != "" else f"-D{key}" for key, value in macros.items()]
    subprocess.run(["spin", *defines, "-a", str(MODELS / f"{model}.pml")], cwd=folder, check=True,
                   stdout=subprocess.DEVNULL)
    subprocess.run(["gcc", "-O1", "-w", "-DSAFETY", "-DMEMLIM=3500", "-DVECTORSZ=2048", "-o", "pan",
                    "pan.c"], cwd=folder, check=True)
    try:
        run = subprocess.run(["./pan", "-m200000", "-w22"], cwd=folder, capture_output=True, text=True,
                             timeout=limit)
        output = run.stdout
    except subprocess.TimeoutExpired:
        output = ""
    for leftover in ("pan", "pan.c", "pan.m", "pan.b", "pan.t", "pan.h", "pan.p", "pan.pre"):
        (folder / leftover).unlink(missing_ok=True)
    states = re.search(r"(\d+) states, stored", output)
    errors = re.search(r"errors: (\d+)", output)
    violated = None
    if errors and errors.group(1) != "0":
        number = re.search(r"\|\|\((\d)==0\)", output)
        violated = PROPERTIES[int(number.group(1))] if number else "the model's own bounds"
    complete = bool(errors) and "not completed" not in output and "max search depth too small" not in output
    return Result(int(states.group(1)) if states else 0, violated, complete)


def described(macros):
    return " ".join(f"{key}={value}" if value != "" else key for key, value in macros.items())


def noticed(model, weakening, limit):
    """The property that a weakening violates and the configuration, or None; False if a run had no time."""
    complete = True
    macros = {weakening: "" if weakening.startswith("SWAP") else "RELAXED"}
    for configuration, _ in CONFIGURATIONS[model]:
        result = check(model, {**configuration, **macros}, limit)
        if result.violated:
            return result.violated, described(configuration)
        complete = complete and result.complete
    return None if complete else False
