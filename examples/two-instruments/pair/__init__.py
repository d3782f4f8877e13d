"""Two simulated instruments and the cable between them; each is made with the modules of the one simulated instrument."""

import sys
from pathlib import Path

FOLDER = Path(__file__).resolve().parent.parent
sys.path.append(str(FOLDER.parent / "instrument"))
