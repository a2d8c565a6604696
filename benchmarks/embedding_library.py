"""Kavo embeddings by the C interface, as far as what is compared with PyTorch needs them."""

import ctypes
import sys

import numpy

OPTIMISERS = {"sgd": 1, "adagrad": 2, "adam": 4}
POOLS = {"sum": 0, "mean": 1}


class Rates(ctypes.Structure):
    _fields_ = [("size", ctypes.c_ulonglong)] + [
        (name, ctypes.c_double)
        for name in ("learningRate", "weightDecay", "eps", "beta1", "beta2", "ftrlBeta", "l1", "l2")
    ]


class Options(ctypes.Structure):
    _fields_ = [
        ("size", ctypes.c_ulonglong),
        ("dim", ctypes.c_uint),
        ("optimiser", ctypes.c_uint),
        ("initialiser", ctypes.c_uint),
        ("startA", ctypes.c_float),
        ("startB", ctypes.c_float),
        ("initialAccumulator", ctypes.c_float),
        ("seed", ctypes.c_ulonglong),
        ("expected", ctypes.c_ulonglong),
        ("admission", ctypes.c_uint),
        ("counts", ctypes.c_uint),
        ("growth", ctypes.c_uint),
        ("threads", ctypes.c_uint),
        ("rates", Rates),
    ]


class Bags(ctypes.Structure):
    _fields_ = [
        ("size", ctypes.c_ulonglong),
        ("num", ctypes.c_ulonglong),
        ("offsets", ctypes.c_void_p),
        ("weights", ctypes.c_void_p),
        ("pool", ctypes.c_uint),
        ("hasPadding", ctypes.c_uint),
        ("padding", ctypes.c_long),
    ]


def address(array: numpy.ndarray | None) -> ctypes.c_void_p:
    return ctypes.c_void_p(None if array is None else array.ctypes.data)


class Embedding:
    """Arrays of keys are of numpy.int64, offsets of numpy.uint64, all others of numpy.float32."""

    def __init__(self, path: str, rows: int, dim: int, optimiser: str, threads: int, rate: float | None = None):
        self.library = ctypes.CDLL(path)
        self.library.KavoEmbeddingLastError.restype = ctypes.c_char_p
        options = Options()
        size = ctypes.c_ulonglong(ctypes.sizeof(options))
        self.call("Defaults", ctypes.byref(options), size, dim, OPTIMISERS[optimiser])
        options.expected = rows
        options.threads = threads
        options.rates.learningRate = rate or options.rates.learningRate
        self.handle = ctypes.c_void_p()
        self.call("Create", ctypes.byref(options), ctypes.byref(self.handle))
        self.dim = dim

    def call(self, name: str, *arguments: object) -> None:
        status = getattr(self.library, "KavoEmbedding" + name)(*arguments)
        if status != 0:
            sys.exit(f"{status}: {self.library.KavoEmbeddingLastError().decode()}")

    def of_keys(self, name: str, keys: numpy.ndarray, *arguments: object) -> None:
        self.call(name, self.handle, address(keys), ctypes.c_ulonglong(len(keys)), *arguments)

    def forward_rows(self, keys: numpy.ndarray) -> numpy.ndarray:
        out = numpy.empty((len(keys), self.dim), dtype=numpy.float32)
        self.of_keys("Forward", keys, None, address(out), None)
        return out

    def bags(
        self,
        offsets: numpy.ndarray,
        pool: str = "sum",
        weights: numpy.ndarray | None = None,
        padding: int | None = None,
    ) -> Bags:
        """Of arrays that the caller keeps."""
        return Bags(
            ctypes.sizeof(Bags),
            len(offsets) - 1,
            address(offsets),
            address(weights),
            POOLS[pool],
            int(padding is not None),
            padding or 0,
        )

    def forward(self, keys: numpy.ndarray, bags: Bags, out: numpy.ndarray) -> None:
        self.of_keys("ForwardBags", keys, ctypes.byref(bags), address(out), None)

    def backward(
        self, keys: numpy.ndarray, bags: Bags, gradients: numpy.ndarray, of_weights: numpy.ndarray | None = None
    ) -> None:
        arguments = (address(gradients), ctypes.c_float(1), address(of_weights), None)
        self.of_keys("BackwardBags", keys, ctypes.byref(bags), *arguments)
