// Placeholder translation unit for a folder without sources.
