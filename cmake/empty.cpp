// Placeholder translation unit for a family that has no sources yet.
