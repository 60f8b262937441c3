#!/usr/bin/python3
"""Lists or fills unfinished entries of the Qt .ts translation files.

  translations.py list [FILE.ts ...]        unfinished entries as JSON
  translations.py apply MAP.json [FILE.ts ...]
      MAP.json maps a source text (or "Context::source") to its translation;
      matching unfinished entries are filled and marked finished.
Without files, every translations/zh_CN_*.ts is used.
"""
import glob
import json
import os
import sys
import xml.etree.ElementTree as ET

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def ts_files(args):
    return args or sorted(glob.glob(os.path.join(ROOT, "translations", "zh_CN_*.ts")))


def messages(tree):
    for context in tree.getroot().iter("context"):
        name = context.findtext("name")
        for message in context.iter("message"):
            yield name, message


def unfinished(message):
    tr = message.find("translation")
    return tr is not None and tr.get("type") == "unfinished"


def main():
    if len(sys.argv) < 2 or sys.argv[1] not in ("list", "apply"):
        print(__doc__)
        return 2
    if sys.argv[1] == "list":
        out = []
        for path in ts_files(sys.argv[2:]):
            tree = ET.parse(path)
            for ctx, msg in messages(tree):
                if unfinished(msg):
                    out.append({"file": os.path.basename(path), "context": ctx,
                                "source": msg.findtext("source")})
        print(json.dumps(out, ensure_ascii=False, indent=1))
        return 0
    mapping = json.load(open(sys.argv[2], encoding="utf-8"))
    left = 0
    for path in ts_files(sys.argv[3:]):
        tree = ET.parse(path)
        changed = False
        for ctx, msg in messages(tree):
            if not unfinished(msg):
                continue
            src = msg.findtext("source")
            text = mapping.get(f"{ctx}::{src}", mapping.get(src))
            if text is None:
                left += 1
                continue
            tr = msg.find("translation")
            if msg.get("numerus") == "yes":
                for form in list(tr):
                    tr.remove(form)
                ET.SubElement(tr, "numerusform").text = text
            else:
                tr.text = text
            del tr.attrib["type"]
            changed = True
        if changed:
            with open(path, "wb") as f:
                f.write(b'<?xml version="1.0" encoding="utf-8"?>\n<!DOCTYPE TS>\n')
                tree.write(f, encoding="utf-8", xml_declaration=False)
    print(f"{left} unfinished entries left")
    return 0


if __name__ == "__main__":
    sys.exit(main())
