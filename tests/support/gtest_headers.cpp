// Nothing: the target needs a source, to precompile its headers for others.
