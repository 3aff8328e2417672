# SPDX-License-Identifier: Apache-2.0
from typing import Any, Optional, Sequence, Tuple, Union

import numpy as np
import numpy.typing as npt

_Buffer = Union[npt.NDArray[np.uint8], npt.NDArray[np.uint16], bytes, bytearray, memoryview]
_Samples = Union[npt.NDArray[np.uint8], npt.NDArray[np.uint16]]

__version__: str

class Error(RuntimeError): ...
class Full(Error): ...
class Empty(Error): ...

class Report:
    number: int
    look_ahead: int
    sigma: float
    crop: float
    granted: float
    guarded: bool
    scene_start: bool
    motion_found: str
    points: int
    inliers: int
    track_ratio: float
    readout: float
    readout_confidence: float
    motion: npt.NDArray[np.float32]
    correction: npt.NDArray[np.float32]

class Picture:
    timestamp: int
    report: Report
    format: str
    planes: Tuple[_Samples, ...]
    array: _Samples
    def __array__(self, *args: Any) -> _Samples: ...

class Stabilizer:
    latency: int
    closed: bool
    def __init__(
        self, width: int, height: int, format: str = "gray", strength: str = "standard", **options: Any
    ) -> None: ...
    def push(
        self,
        picture: Union[_Buffer, Sequence[_Buffer]],
        timestamp: Optional[int] = None,
        copy: bool = True,
        timeout: Optional[float] = 0.0,
    ) -> None: ...
    def pull(self, timeout: Optional[float] = None) -> Optional[Picture]: ...
    def drain(self) -> None: ...
    def flush(self) -> None: ...
    def change(self, strength: Optional[str] = None, **options: Any) -> None: ...
    def close(self) -> None: ...
