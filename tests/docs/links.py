"""Links between the documents lead to files and headings, and every decision is linked.

    links.py [ROOT]    ROOT is a folder with docs/ in it; the project's own by default
"""

import pathlib
import re
import sys

ROOT = pathlib.Path(*sys.argv[1:2] or [__file__ + "/../../.."]).resolve()
LINK = re.compile(r"\]\(([^)#:\s]*)(?:#([^)\s]*))?\)")


def anchors(document):
    """What a link to a heading is named after it."""
    text = re.sub(r"^```.*?^```", "", document.read_text(), flags=re.MULTILINE | re.DOTALL)
    headings = re.findall(r"^#+ (.*)$", text, re.MULTILINE)
    return {re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-") for heading in headings}


folders = [folder for folder in ROOT.iterdir() if folder.is_dir() and folder.name != "build" and folder.name[0] != "."]
documents = [*ROOT.glob("*.md"), *(document for folder in folders for document in folder.rglob("*.md"))]
links = {((document.parent / target).resolve() if target else document, anchor)
         for document in documents for target, anchor in LINK.findall(document.read_text())}
linked = {path for path, _ in links}
wrong = [f"{path}: linked, but missing" for path in linked if not path.exists()]
wrong += [f"{path}: has no heading #{anchor}" for path, anchor in links if anchor and path.exists() and anchor not in anchors(path)]
wrong += [f"{path}: not linked" for path in ROOT.glob("docs/decisions/*.md") if path.name != "README.md" and path not in linked]
if len(linked) < 20:
    wrong.append(f"only {len(linked)} links found")
sys.exit("\n".join(sorted(wrong)) or 0)
