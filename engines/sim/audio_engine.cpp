// Simulated audio engine: filled in by the simulated-engine work.
