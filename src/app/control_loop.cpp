// Placeholder until this part is written.
