# Installation and package files.
