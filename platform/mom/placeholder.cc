// Replaced by the embedded store.
