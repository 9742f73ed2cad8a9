#!/usr/bin/env python3
"""A wrapper written only against docs/sonvex.schema.json, as a GUI front end would be: it lists
each source with -json, validates the document, picks the first audio track and demuxes it under
the extension its codec tag names, then checks the outcome document against the file written.
Usage: json_wrapper.py SONVEX SCHEMA SOURCE..."""
import json, os, subprocess, sys, tempfile
import jsonschema

sonvex, schema_path, sources = sys.argv[1], sys.argv[2], sys.argv[3:]
schema = json.load(open(schema_path))
failures = demuxed = 0


def run(args, folder):
    done = subprocess.run([sonvex] + args + ["-json"], capture_output=True, timeout=600, cwd=folder)
    doc = json.loads(done.stdout.decode("utf-8"))
    jsonschema.validate(doc, schema)
    if doc["exit_code"] != done.returncode:
        raise ValueError(f"exit_code {doc['exit_code']}, the process ended with {done.returncode}")
    return doc


for source in sources:
    with tempfile.TemporaryDirectory() as folder:
        try:
            listing = run([source], folder)
            if listing["exit_code"] != 0:
                print(f"not listed: {source}: {' '.join(listing['errors'])}")
                continue
            audio = [t for t in listing.get("tracks", []) if t["kind"] == "audio"]
            if not audio:
                continue
            track = audio[0]
            dest = "first." + track["codec"].split("/")[0]
            outcome = run([source, f"{track['number']}:", dest], folder)
            written = [o for o in outcome["outputs"] if o["name"] == dest]
            if outcome["exit_code"] != 0 or not written or written[0]["size"] == 0 \
                    or written[0]["size"] != os.path.getsize(os.path.join(folder, dest)):
                raise ValueError(f"track {track['number']} not demuxed: {outcome}")
            demuxed += 1
        except Exception as error:  # invalid JSON, a schema violation or a failed demux
            print(f"FAIL {source}: {error}")
            failures += 1
print(f"{len(sources)} sources, {demuxed} demuxed, {failures} failures")
sys.exit(1 if failures or not demuxed else 0)
