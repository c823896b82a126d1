#!/usr/bin/env python3
"""Answers the extension on a Mac in the sync application's place: every folder holds a.txt (synced), b.txt (in progress) and d (not
synced), and Share and View in Cloud apply. Prints each request. Usage: macos/answer-requests.py [STATUS]
  STATUS  of b.txt: 1 (the default) or 2, synced
"""
import http.server
import json
import sys

status = int(sys.argv[1]) if len(sys.argv) > 1 else 1


class Answer(http.server.BaseHTTPRequestHandler):
    def do_POST(self):
        print(self.path, self.rfile.read(int(self.headers["Content-Length"])).decode(), flush=True)
        icons = {"/a.txt": 2, "/b.txt": status, "/d": 0}
        body = json.dumps(icons if self.path == "/get_icons_for_folder" else {"1": True, "3": True}).encode()
        self.send_response(200)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)


http.server.HTTPServer(("127.0.0.1", 8806), Answer).serve_forever()
