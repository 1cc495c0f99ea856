"""Links between the documents lead to files, and every decision is linked.

    links.py [ROOT]    ROOT is a folder with docs/ in it; the project's own by default
"""

import pathlib
import re
import sys

ROOT = pathlib.Path(*sys.argv[1:2] or [__file__ + "/../../.."]).resolve()
LINK = re.compile(r"\]\(([^)#:\s]+)(?:#[^)]*)?\)")

documents = [*ROOT.glob("*.md"), *ROOT.glob("docs/**/*.md")]
linked = {(document.parent / target).resolve() for document in documents for target in LINK.findall(document.read_text())}
wrong = [f"{path}: linked, but missing" for path in linked if not path.exists()]
wrong += [f"{path}: not linked" for path in ROOT.glob("docs/decisions/*.md") if path.name != "README.md" and path not in linked]
if len(linked) < 20:
    wrong.append(f"only {len(linked)} links found")
sys.exit("\n".join(sorted(wrong)) or 0)
