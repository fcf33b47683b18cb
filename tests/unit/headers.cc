// Empty: its target compiles the headers that most tests include.
