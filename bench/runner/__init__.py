"""The parts of the benchmark's driver."""
