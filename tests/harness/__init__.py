"""Shared by all Python suites: programs and daemons in scratch trees, servers, waiting, files.

wait        the one wait loop and its limit
files       handing files over, locks, XML texts
programs    running the programs of a build, and other commands
schemas     checking documents against the schemas
health      a stand-in for the station: its health file
status      statuses: as texts, from a file, through a FIFO
daemon      a daemon in a scratch tree, with a fake translator and fake helpers
companions  a private directory for scripts and the programs that they call
sound       raw audio
servers     FTP, SFTP and SMB servers on loopback
proxy       counts connections to a server, and cuts them
remote      helpers and daemons that watch such a server
"""
