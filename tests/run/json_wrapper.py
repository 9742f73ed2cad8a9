#!/usr/bin/env python3
"""A wrapper written only against docs/sonvex.schema.json: lists each source with -json,
validates the document, picks the first audio track and demuxes it. Usage:
json_wrapper.py SONVEX SCHEMA SOURCE..."""
import json, os, subprocess, sys, tempfile
import jsonschema

sonvex, schema_path, sources = sys.argv[1], sys.argv[2], sys.argv[3:]
schema = json.load(open(schema_path))
failures = 0
for source in sources:
    run = subprocess.run([sonvex, source, "-json"], capture_output=True, timeout=600)
    try:
        doc = json.loads(run.stdout.decode("utf-8"))
        jsonschema.validate(doc, schema)
    except Exception as error:  # invalid JSON or a schema violation
        print(f"FAIL {source}: {error}"); failures += 1; continue
    if doc["exit_code"] != run.returncode:
        print(f"FAIL {source}: exit_code {doc['exit_code']} but the process gave {run.returncode}")
        failures += 1; continue
    audio = [t for t in doc.get("tracks", []) if t["kind"] == "audio"]
    if not audio or "container" not in doc:
        continue
    track = audio[0]
    with tempfile.TemporaryDirectory() as folder:
        dest = os.path.join(folder, "out." + track["codec"].split("/")[0])
        run = subprocess.run([sonvex, source, f"{track['number']}:", dest, "-json"],
                             capture_output=True, timeout=1200)
        outcome = json.loads(run.stdout.decode("utf-8"))
        jsonschema.validate(outcome, schema)
        sizes = [o.get("size", 0) for o in outcome.get("outputs", [])]
        if outcome["exit_code"] == 0 and not any(sizes):
            print(f"FAIL {source}: demux of track {track['number']} wrote nothing"); failures += 1
print(f"{len(sources)} sources, {failures} failures")
sys.exit(1 if failures else 0)
