"""The builder of update packages: what a release computer runs. It stands on the installer's modules."""
