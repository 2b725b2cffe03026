// The shared simulation: filled in by the simulated-engine work.
namespace ktsim {}
