// osAbstraction/osAbstractionLinux
