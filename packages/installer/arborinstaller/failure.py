"""The exceptions that carry a text for the person in front of the instrument."""


class Failure(Exception):
    """Something the user can understand and act on; its text names the thing that failed."""


class NotPackage(Failure):
    """The file is not a package of a format that is known here."""


class Damaged(Failure):
    """The file is a package, but not a whole one, or one whose description is wrong."""


def describe(error: BaseException) -> str:
    """One line about `error`: a Failure's own text, the system's reason and file for an OSError.

    It can be written as UTF-8, whatever names are in it.
    """
    return " ".join(_text(error).encode(errors="replace").decode().split())


def _text(error: BaseException) -> str:
    if isinstance(error, Failure):
        return str(error)
    if isinstance(error, OSError) and error.strerror:
        return f"{error.filename}: {error.strerror}" if error.filename else error.strerror
    return f"internal error: {type(error).__name__}: {error}"
