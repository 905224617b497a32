"""The soak: a whole router under random faults for as long as one likes. See scripts/soak."""
