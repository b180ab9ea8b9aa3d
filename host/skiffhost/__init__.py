"""Runs the Skiffport module without its application: a message loop, and a command line (``python3 -m skiffhost``)."""
