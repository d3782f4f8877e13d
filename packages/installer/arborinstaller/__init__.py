"""The installer that travels inside every update package.

The same modules run in two places: from the package file itself (checking and installing it) and from the
installer folder of a version in the archive (building a package for another board). They use the Python
standard library and the openssl program only, which is what an instrument has.
"""
