#!/usr/bin/env python3
"""Calls the helper from Python, through the session of its command-line client.

    editor.py status                  which engines are installed
    editor.py generate ENGINE PROMPT  generates text

The helper does not admit an interpreter, which anybody could give a program. It admits its client, and that carries
the same messages: a line for each call, a line for each reply.
"""

import contextlib
import json
import subprocess
import sys
import uuid

GENERATION_ERROR = "com.brindlemoor.Tessaloom.generation."


class HelperError(Exception):
    """A call that failed. `kind` says why a generation failed; other errors have none."""

    def __init__(self, name, description):
        super().__init__(description or name)
        self.name = name
        self.kind = name.removeprefix(GENERATION_ERROR) if name.startswith(GENERATION_ERROR) else None


class Helper:
    """One connection to the helper. The first call starts it."""

    def __init__(self):
        self.client = subprocess.Popen(["tessaloom-helperctl", "session"], stdin=subprocess.PIPE,
                                       stdout=subprocess.PIPE, encoding="utf-8")
        self.last_call = 0
        self.replies = {}

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.client.communicate()

    def send(self, method, request=None):
        """Sends a call without waiting for its reply; the number to wait for."""
        body = "" if request is None else " " + json.dumps(request)
        with contextlib.suppress(BrokenPipeError):  # Then there is no reply, either.
            self.client.stdin.write(method + body + "\n")
            self.client.stdin.flush()
        self.last_call += 1
        return self.last_call

    def wait(self, call):
        """The reply to a call. Replies come in any order; those to other calls are kept for later."""
        while call not in self.replies:
            line = self.client.stdout.readline()
            if not line:
                raise HelperError("unreachable", "The helper could not be reached.")
            number, outcome, rest = line.rstrip("\n").split(" ", 2)
            self.replies[int(number)] = outcome, rest
        outcome, rest = self.replies.pop(call)
        if outcome == "ok":
            return json.loads(rest)
        raise HelperError(*rest.split(" ", 1))

    def call(self, method, request=None):
        return self.wait(self.send(method, request))


def show_status(helper):
    # Both calls are under way at once.
    calls = [(engine, helper.send("GenerationEngineStatus", {"engine": engine})) for engine in ("claudeCode", "codex")]
    for engine, call in calls:
        status = helper.wait(call)
        version = status.get("version") or "unknown version"
        print(f"{engine}: {version if status['binaryFound'] else 'not found'}")


def generate(helper, engine, prompt):
    result = helper.call("GenerateText", {"requestID": str(uuid.uuid4()), "engine": engine, "shape": "freeText",
                                          "instructions": "Be brief.", "prompt": prompt, "timeout": 180})
    print(result["text"])


def main(words):
    with Helper() as helper:
        if helper.call("ProtocolVersion") != 1:
            raise HelperError("version", "This helper speaks another version of the protocol.")
        if words[:1] == ["status"]:
            show_status(helper)
        elif words[:1] == ["generate"] and len(words) == 3:
            generate(helper, *words[1:])
        else:
            sys.exit("usage: editor.py status|generate")


if __name__ == "__main__":
    try:
        main(sys.argv[1:])
    except FileNotFoundError:
        sys.exit("tessaloom-helperctl is not installed.")
    except HelperError as error:
        if error.kind == "notAuthenticated":
            sys.exit(f"Sign in to the engine first: {error}")
        sys.exit(f"{error.kind or error.name}: {error}")
