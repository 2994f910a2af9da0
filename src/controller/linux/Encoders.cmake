# Snapshot encoders: PNG, JPEG, one-page PDF.
