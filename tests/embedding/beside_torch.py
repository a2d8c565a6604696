#!/usr/bin/python3
"""Bags and optimisers beside PyTorch's, of the same rows, batches and gradients: pooled rows, gradients of weights, and
all rows after each step. Needs Debian's python3-torch, and libkavo_embedding at the path that is given.

Rows and gradients begin as small multiples of 1/64, weights are powers of two, means are of 1, 2, 4 or 8 keys, and
SGD's rate is 1/32: sums, products and SGD's steps have too few bits to be rounded, so both must agree to the last bit.
Adagrad and Adam take roots and quotients, in another order there than here: a step, a tenth of the row or so, may
differ by some roundings of its own, and so the row by one rounding of 2^-24 a step. Twice that is let pass. No gradient
is tiny, so that no rounding decides a step.
"""

import argparse
import itertools
import pathlib
import sys
import typing

import numpy
import torch

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "benchmarks"))
from embedding_library import Embedding, address  # noqa: E402

ROWS, DIM, BAGS, STEPS = 300, 7, 64, 20
PADDING = 0  # its place among the rows
OPTIMISERS: dict[str, typing.Any] = {  # theirs, the rate, and floats of state for each weight
    "sgd": (torch.optim.SGD, 1 / 32, 0),
    "adagrad": (torch.optim.Adagrad, 0.1, 1),
    "adam": (torch.optim.SparseAdam, 0.1, 2),
}


def multiples(random: numpy.random.Generator, *shape: int) -> numpy.ndarray:
    return (random.integers(-64, 65, shape) / 64).astype(numpy.float32)


def expect_same(what: str, name: str, ours: numpy.ndarray, theirs: torch.Tensor) -> None:
    expected = theirs.detach().numpy()
    difference = numpy.abs(ours - expected).max(initial=0)
    tolerance = 0 if name == "sgd" else 2 * STEPS / 2**24 * numpy.abs(expected).max(initial=1)
    if not difference <= tolerance:
        sys.exit(f"{what}: differs by {difference}")


def compare(library: str, name: str, pool: str, weighted: bool, padded: bool) -> None:
    random = numpy.random.default_rng(1)
    keys = random.integers(-(2**63), 2**63, ROWS, dtype=numpy.int64)
    start = multiples(random, ROWS, DIM)
    theirs, rate, state = OPTIMISERS[name]
    kavo = Embedding(library, 8, DIM, name, 2, rate)
    whole = numpy.hstack([start] + state * [numpy.zeros_like(start)])
    kavo.of_keys("SetRows", keys, address(whole))
    module = torch.nn.EmbeddingBag(
        ROWS, DIM, mode=pool, sparse=True, include_last_offset=True, padding_idx=PADDING if padded else None
    )
    module.weight.data = torch.from_numpy(start.copy())
    optimiser = theirs(list(module.parameters()), lr=rate)
    for step in range(STEPS):
        bags = [random.integers(1, ROWS, size) for size in random.choice([0, 1, 2, 4, 8], BAGS)]
        if padded:
            bags = [numpy.insert(bag, 0, [PADDING] * random.integers(0, 3)) for bag in bags]
        places = numpy.concatenate(bags)
        offsets = numpy.cumsum([0] + [len(bag) for bag in bags]).astype(numpy.uint64)
        weights = random.choice([-1, 0.5, 1, 2], len(places)).astype(numpy.float32) if weighted else None
        gradients = multiples(random, BAGS, DIM)

        parameter = None if weights is None else torch.from_numpy(weights.copy()).requires_grad_()
        starts = torch.from_numpy(offsets.astype(numpy.int64))
        pooled = module(torch.from_numpy(places), starts, per_sample_weights=parameter)
        optimiser.zero_grad()
        pooled.backward(torch.from_numpy(gradients))
        optimiser.step()

        ours = numpy.empty((BAGS, DIM), dtype=numpy.float32)
        of_weights = None if weights is None else numpy.empty_like(weights)
        batch = keys[places]
        described = kavo.bags(offsets, pool, weights, int(keys[PADDING]) if padded else None)
        kavo.forward(batch, described, ours)
        kavo.backward(batch, described, gradients, of_weights)
        what = f"{name}, {pool}, weighted {weighted}, padded {padded}, step {step}: "
        expect_same(what + "pooled rows", name, ours, pooled)
        expect_same(what + "rows", name, kavo.forward_rows(keys), module.weight)
        if parameter is not None and of_weights is not None:
            expect_same(what + "gradients of weights", name, of_weights, parameter.grad * torch.from_numpy(places != 0))


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("library", help="libkavo_embedding.so")
    library = parser.parse_args().library
    torch.set_num_threads(1)
    kinds = [("sum", False), ("sum", True), ("mean", False)]
    for name, (pool, weighted), padded in itertools.product(OPTIMISERS, kinds, [False, True]):
        compare(library, name, pool, weighted, padded)
    print(f"{len(OPTIMISERS) * len(kinds) * 2} cases of {STEPS} steps agree with PyTorch {torch.__version__}")


if __name__ == "__main__":
    main()
