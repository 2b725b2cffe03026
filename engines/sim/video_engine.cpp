// Simulated video engine: filled in by the simulated-engine work.
