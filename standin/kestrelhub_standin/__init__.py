"""A runnable Kestrelhub on loopback: it stands in the service's place for the demo and the tests.

It answers every request that the client makes, with TLS, and it always behaves well.
Run it as ``python3 -m kestrelhub_standin``; it shares no code with the client.
"""
