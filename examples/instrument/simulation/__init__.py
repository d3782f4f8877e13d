"""The simulated instrument: what a real one has at its fixed paths, made on an ordinary Linux machine."""
