#!/usr/bin/python3
"""Training steps of Kavo embeddings beside PyTorch's, on one stream: what a user would pick instead on this machine.

Both sum bags of heavy-tailed ids over tables that hold all rows, and train them with the same gradients; the steps of
the two alternate. Prints JSON as embedding_benchmarks does: a list of rows, what was measured and every sample. Needs
Debian's python3-torch, and libkavo_embedding at the path that is given. The environment should have
OMP_WAIT_POLICY=PASSIVE, or PyTorch's idle threads hold a core.
"""

import argparse
import json
import time

import numpy
import torch

from embedding_library import OPTIMISERS, Embedding


def torch_optimiser(name: str, module: torch.nn.Module) -> torch.optim.Optimizer:
    if name == "sgd":
        return torch.optim.SGD(module.parameters(), lr=0.01)
    if name == "adagrad":
        return torch.optim.Adagrad(module.parameters(), lr=0.01)
    return torch.optim.SparseAdam(list(module.parameters()), lr=0.001)


def stream(rows: int, num: int, random: numpy.random.Generator) -> numpy.ndarray:
    """Heavy-tailed ids: the r-th most frequent comes up in proportion to 1 / r; about half of 100,000 draws are
    distinct in 10,000,000 rows. Popular ids are scattered."""
    popular = (rows ** random.random(num)).astype(numpy.int64) - 1
    return popular * 7368787 % rows


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("library", help="libkavo_embedding.so")
    parser.add_argument("--rows", type=int, default=10_000_000)
    parser.add_argument("--dim", type=int, default=16)
    parser.add_argument("--bags", type=int, default=4096)
    parser.add_argument("--keys", type=int, default=26, help="of each bag")
    parser.add_argument("--steps", type=int, default=30)
    parser.add_argument("--threads", type=int, default=1)
    parser.add_argument("--optimiser", choices=sorted(OPTIMISERS), default="sgd")
    options = parser.parse_args()
    torch.set_num_threads(options.threads)
    random = numpy.random.default_rng(1)
    num = options.bags * options.keys
    offsets = numpy.arange(0, num + 1, options.keys, dtype=numpy.uint64)
    kavo = Embedding(options.library, options.rows, options.dim, options.optimiser, options.threads)
    for first in range(0, options.rows, 1 << 20):
        kavo.forward_rows(numpy.arange(first, min(options.rows, first + (1 << 20)), dtype=numpy.int64))
    module = torch.nn.EmbeddingBag(options.rows, options.dim, mode="sum", sparse=True)
    optimiser = torch_optimiser(options.optimiser, module)
    starts = torch.from_numpy(offsets[:-1].astype(numpy.int64))
    out = numpy.empty((options.bags, options.dim), dtype=numpy.float32)
    times: dict[str, list[float]] = {"kavo forward": [], "kavo step": [], "torch forward": [], "torch step": []}
    for step in range(options.steps + 3):  # the first are warm-up
        keys = stream(options.rows, num, random)
        gradients = random.standard_normal((options.bags, options.dim), dtype=numpy.float32) * 0.01
        bags = kavo.bags(offsets)
        begin = time.perf_counter()
        kavo.forward(keys, bags, out)
        middle = time.perf_counter()
        kavo.backward(keys, bags, gradients)
        end = time.perf_counter()
        tensor = torch.from_numpy(keys)
        torch_begin = time.perf_counter()
        with torch.no_grad():
            module(tensor, starts)
        torch_middle = time.perf_counter()
        optimiser.zero_grad(set_to_none=True)
        pooled = module(tensor, starts)
        pooled.backward(torch.from_numpy(gradients))
        optimiser.step()
        torch_end = time.perf_counter()
        if step >= 3:
            times["kavo forward"].append(middle - begin)
            times["kavo step"].append(end - begin)
            times["torch forward"].append(torch_middle - torch_begin)
            times["torch step"].append(torch_end - torch_middle)
    threads = f"{options.threads} thread{'' if options.threads == 1 else 's'}"
    name = {"sgd": "SGD", "adagrad": "Adagrad", "adam": "Adam"}[options.optimiser]
    rows = [
        {
            "title": f"{what}, {name}, {threads}",
            "unit": "ns a key",
            "beside": beside,
            "kavo": [1e9 * time / num for time in times[f"kavo {key}"]],
            "other": [1e9 * time / num for time in times[f"torch {key}"]],
        }
        for what, key, beside in (
            ("training step", "step", "PyTorch's whole step"),
            ("forward alone", "forward", "PyTorch's under no_grad"),
        )
    ]
    print(json.dumps(rows))


if __name__ == "__main__":
    main()
