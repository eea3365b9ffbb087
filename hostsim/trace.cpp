// Placeholder until the simulated host is written.
