// Stands in for a folder without sources.
