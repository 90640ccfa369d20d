# Plays a file or URL in a window: minimal.py FILE
import sys
import tkinter

from kelp_player import Player, SyncMaster


def look() -> None:
    window.after(20, look) if player.ended is None else window.quit()


window = tkinter.Tk()
window.geometry("1280x720")
window.protocol("WM_DELETE_WINDOW", window.quit)  # it stays until the player has gone
window.update()  # and is there by now
with Player(sys.argv[1], preset="recommended", log_level="error") as player:
    player.add_window(window.winfo_id(), 1280, 720)
    player.set_sync_master(SyncMaster.AUDIO)
    player.play()
    look()
    window.mainloop()
