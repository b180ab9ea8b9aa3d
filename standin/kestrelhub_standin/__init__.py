"""A Kestrelhub that runs on loopback and replaces the real service in the demo and the tests.

It answers every request that the client sends, over TLS too, and always behaves well. Run it as
``python3 -m kestrelhub_standin FOLDER``; it shares no code with the client.
"""
