# Plays a file or URL in a window: minimal.py FILE
import sys
import time
import tkinter

from kelp_player import Player, SyncMaster

window = tkinter.Tk()
window.geometry("1280x720")
closed = tkinter.BooleanVar()
window.protocol("WM_DELETE_WINDOW", lambda: closed.set(True))  # it stays until the player has gone
window.update()  # and is there by now
with Player(sys.argv[1], preset="recommended", log_level="error") as player:
    player.add_window(window.winfo_id(), 1280, 720)
    player.set_sync_master(SyncMaster.AUDIO)
    player.play()
    while player.ended is None and not closed.get():
        window.update()
        time.sleep(0.02)
