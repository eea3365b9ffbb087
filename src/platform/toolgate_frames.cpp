// Placeholder until this stand-in is written.
