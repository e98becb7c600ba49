// The only source of a library whose folder has none.
