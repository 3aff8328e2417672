# SPDX-License-Identifier: Apache-2.0
from types import TracebackType
from typing import Iterable, Iterator, Optional, Sequence, Type, Union

from ._native import (
    Empty as Empty,
    Error as Error,
    Full as Full,
    Picture as Picture,
    Report as Report,
    Stabilizer as _Stabilizer,
    _Buffer,
    __version__ as __version__,
)

_Shaky = Union[_Buffer, Sequence[_Buffer]]

class Stabilizer(_Stabilizer):
    def stream(
        self,
        pictures: Iterable[_Shaky],
        timestamps: Optional[Iterable[int]] = None,
        copy: bool = True,
    ) -> Iterator[Picture]: ...
    def __enter__(self) -> Stabilizer: ...
    def __exit__(
        self,
        kind: Optional[Type[BaseException]],
        value: Optional[BaseException],
        traceback: Optional[TracebackType],
    ) -> None: ...
